// Message intake, peer tracking, discovery sending and acknowledgement
// handling: the engine functions the service loop and the query handler use.
#ifndef OMSDK_ENGINE_INTAKE_H
#define OMSDK_ENGINE_INTAKE_H

#include <netinet/in.h>
#include <stdint.h>

#include <omsdk/wire_types.h>

#include "session/session.h"

// One sender seen by intake: its identifier and highest accepted sequence
// number, in a binary search tree ordered by memcmp over the identifier.
struct neighbor_node {
    uint8_t id[CV_CORVANE_ID_SIZE];
    int32_t last_seq;
    neighbor_node *lesser;
    neighbor_node *greater;
};

struct async_request;

extern "C" {
// Adds the request's alarm TLV to the event, for the kinds that have one.
void om_add_async_req(cv_event *ev, async_request *req);
// Builds and sends one discovery event (action 10 update, 11 keepalive,
// 12 delete). 0 when an event was built, -1 otherwise.
int32_t sendDiscoveryEvent(svc_session *s, uint8_t action);

// Entry of every message read from the listener; releases what it made.
void omr_processMsg(svc_session *s, const uint8_t *buf, int32_t len);
// 1 when the event's sequence number is new for its sender, 0 otherwise.
int32_t omr_validatePeer(svc_session *s, cv_event *ev);
// 0 when seq is newer than the sender's last one (or the sender was added),
// -1 otherwise.
int32_t checkNeighbor(neighbor_node *root, const uint8_t *id, uint32_t seq);
void printNeighborNode(neighbor_node *node);
neighbor_node *new_neighbor_node(void);

void omr_processAcknowledgementMsg(svc_session *s, cv_event *ev);
int32_t omr_processDiscoveryMsg(svc_session *s, cv_event *ev);
}

namespace omsdk {

// Frees every node of a tree built by intake. Null-safe.
void free_neighbor_tree(neighbor_node *root);

// Copies the event's reply-to address into *out: false when the event has
// no reply-to TLV of the full 16 bytes (*out is then zeroed).
bool event_reply_to(const cv_event *ev, struct sockaddr_in *out);

}  // namespace omsdk

#endif
