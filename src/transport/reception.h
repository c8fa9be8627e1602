// SPDX-License-Identifier: Apache-2.0
// Internal controls of message reception.
#ifndef OMSDK_TRANSPORT_RECEPTION_H
#define OMSDK_TRANSPORT_RECEPTION_H

#include <netinet/in.h>
#include <stdint.h>
#include <sys/time.h>

#include <omsdk/reception.h>

#include "session/session.h"
#include "util/clock.h"

namespace omsdk {

// Receive time-out given to every accepted connection, so that a peer that
// connects and stays silent (or stops mid-message) holds the loop up for at
// most this long. Default 5000 ms; tests lower it.
void set_receive_timeout_ms(uint32_t ms);
uint32_t receive_timeout_ms();

// Accepts on the loop's listener without spinning once the process is out
// of descriptors: accept() then fails while the connection stays pending, so
// the listener stays readable. A spare descriptor is kept open and given up
// to take that connection and close it at once; the failure is logged once
// per interval, not per attempt. The spare is one for the whole process,
// opened with the first acceptor and closed with the last: many sessions
// in one process would otherwise hold one each. Loop thread only.
class Acceptor {
public:
    Acceptor();
    ~Acceptor();
    Acceptor(const Acceptor &) = delete;
    Acceptor &operator=(const Acceptor &) = delete;
    // accept(): the new descriptor, or -1. A connection closed for lack of
    // descriptors is counted in *shed.
    int32_t accept_one(int32_t listener, struct sockaddr_in *caller, uint32_t *shed);

private:
    int64_t logged_ms_;
};

// How many bytes the message that starts with the `have` bytes at `buf`
// needs so far: the security block first, then up to the event header, then
// all of it. -1 when it cannot fit `size` bytes (the whole, or, with a
// digest longer than the buffer, its header).
int32_t message_bytes_needed(const uint8_t *buf, int32_t have, int32_t size);

}  // namespace omsdk

#endif
