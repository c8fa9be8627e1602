// SPDX-License-Identifier: Apache-2.0
// The senders intake has heard from, with the highest sequence number
// accepted from each: the memory behind the duplicate test.
#ifndef OMSDK_ENGINE_NEIGHBORS_H
#define OMSDK_ENGINE_NEIGHBORS_H

#include <stdint.h>

#include <omsdk/wire_types.h>

// One sender: its identifier and highest accepted sequence number, in a
// binary search tree ordered by memcmp over the identifier.
struct neighbor_node {
    uint8_t id[CV_CORVANE_ID_SIZE];
    int32_t last_seq;
    neighbor_node *lesser;
    neighbor_node *greater;
};

extern "C" {
// 0 when seq is newer than the sender's last one (or the sender was added),
// -1 otherwise. Newer is judged in 32-bit wrap-around arithmetic.
int32_t checkNeighbor(neighbor_node *root, const uint8_t *id, uint32_t seq);
// Logs every sender in order at DEBUG, without recursion.
void printNeighborNode(neighbor_node *node);
neighbor_node *new_neighbor_node(void);
}

namespace omsdk {

// True when seq comes after last in 32-bit wrap-around arithmetic: the one
// rule for "newer" that peers' messages are judged by.
constexpr bool seq_newer(uint32_t seq, uint32_t last) {
    return static_cast<int32_t>(seq - last) > 0;
}

// Frees every node of a tree built by intake. Null-safe.
void free_neighbor_tree(neighbor_node *root);

}  // namespace omsdk

#endif
