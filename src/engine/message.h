// SPDX-License-Identifier: Apache-2.0
// Outgoing messages: one builder for everything the endpoint signs and
// sends, and the per-device records that acknowledgements and GET replies
// share.
#ifndef OMSDK_ENGINE_MESSAGE_H
#define OMSDK_ENGINE_MESSAGE_H

#include <netinet/in.h>
#include <stdint.h>
#include <sys/types.h>

#include <omsdk/wire_types.h>

#include "corvane_util/event_internal.h"
#include "session/session.h"

extern "C" {
// Device header of this endpoint: its identifier and a pointer (not a
// copy) to the session's reply-to address, so it lives as long as the
// session. No-op when either pointer is null.
void omr_fillDeviceHeader(cv_device_header *header, svc_session *session);
// Usage common header: callbacks caliber, units, level in that order; the
// texts point into the session (never copied; "" for an unset text).
void omr_fillUsageCmnHeader(cv_usage_cmn_hdr *header, svc_session *session);
}

namespace omsdk {

// One message from this endpoint. The first failing step is latched: later
// additions are skipped, sign() fails and nothing is sent, so a message is
// never sent with a TLV missing.
//
// The message's own event lives inside it, TLVs and signed bytes included:
// a usual message needs no heap memory at all, a large one a chunk or two.
class message {
public:
    // Inline bytes for the TLVs and the signed bytes: a GET reply with its
    // aggregates fits.
    static constexpr size_t kInline = 4096;

    // A new event, owned by the message.
    explicit message(svc_session *s);
    // TLVs added to an event someone else owns.
    message(svc_session *s, cv_event *borrowed);

    // False when there is no event to build on.
    bool created() const { return ev_ != nullptr; }
    bool ok() const { return ok_; }

    // A fixed-size value; on the wire its length counts the TLV header.
    message &add_value(uint32_t type, const void *value, uint32_t size);
    template <typename T>
    message &add(uint32_t type, const T &value) {
        return add_value(type, &value, sizeof value);
    }
    // A text with its NUL; an unset text is left out.
    message &add_text(uint32_t type, const char *text);
    // The domain: unset is left out unless `empty_if_unset`, then sent as "".
    message &add_domain(bool empty_if_unset);
    message &add_reply_to();
    // The sender-id block: own identifier and the value 1.
    message &add_sender_id();
    // One aggregate entry of this endpoint (entry id 1); `usage` for combo
    // types, else null.
    message &add_entry(uint32_t type, const void *value, const cv_device_header *dh,
                       const cv_usage_cmn_hdr *usage);
    message &add_ack_entry(const cv_device_header *dh);

    // Builds the signed bytes with the endpoint's identifier and its comm
    // code. False, with nothing to send, when any step failed.
    bool sign(uint8_t pri, int32_t shipment, uint8_t cls, uint16_t action, uint32_t seq,
              const hmac_sha_ctx *key);

    // The signed message through the session's output; -1 (EINVAL) unsigned.
    ssize_t send_reply();
    ssize_t send_datagram(const struct sockaddr_in *to);

    cv_event *event() const { return ev_; }
    uint32_t size() const { return signed_ ? ev_->raw_len : 0; }

private:
    message &latch(bool good) {
        ok_ = ok_ && good;
        return *this;
    }

    svc_session *s_;
    local_event<kInline> own_;
    cv_event *ev_;
    bool ok_;
    bool signed_ = false;
};

}  // namespace omsdk

#endif
