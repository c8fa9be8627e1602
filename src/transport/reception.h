// Internal controls of message reception.
#ifndef OMSDK_TRANSPORT_RECEPTION_H
#define OMSDK_TRANSPORT_RECEPTION_H

#include <stdint.h>

#include <omsdk/reception.h>

namespace omsdk {

// Receive time-out given to every accepted connection, so that a peer that
// connects and stays silent (or stops mid-message) holds the loop up for at
// most this long. Default 5000 ms; tests lower it.
void set_receive_timeout_ms(uint32_t ms);
uint32_t receive_timeout_ms();

}  // namespace omsdk

#endif
