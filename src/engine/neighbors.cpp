// SPDX-License-Identifier: Apache-2.0
// The senders intake has heard from: a binary search tree walked and freed
// without recursion, so that a degenerate tree of many senders cannot
// exhaust the stack.
#include "engine/neighbors.h"

#include <stdlib.h>
#include <string.h>

#include <omsdk/dump.h>

#include "common/api.h"
#include "diag/log.h"

namespace omsdk {

void free_neighbor_tree(neighbor_node *root) {
    // Rotate left subtrees up: no recursion or stack is needed.
    neighbor_node *n = root;
    while (n != nullptr) {
        if (n->lesser != nullptr) {
            neighbor_node *l = n->lesser;
            n->lesser = l->greater;
            l->greater = n;
            n = l;
        } else {
            neighbor_node *next = n->greater;
            free(n);
            n = next;
        }
    }
}

}  // namespace omsdk

OMSDK_API neighbor_node *new_neighbor_node(void) {
    return static_cast<neighbor_node *>(calloc(1, sizeof(neighbor_node)));
}

OMSDK_API void printNeighborNode(neighbor_node *node) {
    // In-order walk by threading (no recursion): a degenerate tree of many
    // senders must not exhaust the stack. Every thread is undone on the way.
    neighbor_node *cur = node;
    char text[CV_CORVANE_ID_SIZE + 2];
    while (cur != nullptr) {
        if (cur->lesser == nullptr) {
            ohmara_idtos(text, cur->id, CV_CORVANE_ID_SIZE + 1);
            OM_DEBUG("%s last seq %d", text, cur->last_seq);
            cur = cur->greater;
            continue;
        }
        neighbor_node *pred = cur->lesser;
        while (pred->greater != nullptr && pred->greater != cur) pred = pred->greater;
        if (pred->greater == nullptr) {
            pred->greater = cur;
            cur = cur->lesser;
        } else {
            pred->greater = nullptr;
            ohmara_idtos(text, cur->id, CV_CORVANE_ID_SIZE + 1);
            OM_DEBUG("%s last seq %d", text, cur->last_seq);
            cur = cur->greater;
        }
    }
}

OMSDK_API int32_t checkNeighbor(neighbor_node *root, const uint8_t *id, uint32_t seq) {
    if (root == nullptr || id == nullptr) return -1;
    if (omsdk::log_enabled(omsdk::LOG_DEBUG)) printNeighborNode(root);

    neighbor_node *n = root;
    neighbor_node *parent = nullptr;
    int cmp = 0;
    while (n != nullptr) {
        cmp = memcmp(n->id, id, CV_CORVANE_ID_SIZE);
        if (cmp == 0) break;
        parent = n;
        n = cmp < 0 ? n->greater : n->lesser;
    }

    if (n == nullptr) {
        OM_DEBUG("adding %.32s, sequence number %d", reinterpret_cast<const char *>(id),
                 static_cast<int32_t>(seq));
        neighbor_node *added = new_neighbor_node();
        if (added == nullptr) {
            OM_FATAL("out of memory");
            return -1;
        }
        memcpy(added->id, id, CV_CORVANE_ID_SIZE);
        added->last_seq = static_cast<int32_t>(seq);
        if (cmp < 0)
            parent->greater = added;
        else
            parent->lesser = added;
        return 0;
    }

    // Every message passes here: its id is put into text only for a
    // debug log that is written.
    if (omsdk::log_enabled(omsdk::LOG_DEBUG)) {
        char text[CV_CORVANE_ID_SIZE + 2];
        ohmara_idtos(text, id, CV_CORVANE_ID_SIZE + 1);
        OM_DEBUG("lookup last sequence number %u and new sequence number %u for %s",
                 static_cast<uint32_t>(n->last_seq), seq, text);
    }
    if (omsdk::seq_newer(seq, static_cast<uint32_t>(n->last_seq))) {
        n->last_seq = static_cast<int32_t>(seq);
        return 0;
    }
    return -1;
}
