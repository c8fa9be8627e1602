/* SPDX-License-Identifier: Apache-2.0 */
#include "lamp.h"

/* An LED lamp: half a watt of standby electronics rounds up to 1 W, then
 * 6 W per step on top of a 4 W driver overhead, 64 W at full level. */
uint16_t lamp_usage_at(uint8_t level) {
    if (level > LAMP_LEVEL_MAX) level = LAMP_LEVEL_MAX;
    if (level == 0) return 1;
    return (uint16_t)(4u + 6u * level);
}

void lamp_usage_vector(uint16_t usage[LAMP_VECTOR_LEN]) {
    for (uint8_t i = 0; i < LAMP_VECTOR_LEN; ++i) usage[i] = lamp_usage_at(i);
}

void lamp_delta_vector(int32_t delta[LAMP_VECTOR_LEN], uint8_t current) {
    const int32_t now = lamp_usage_at(current);
    for (uint8_t i = 0; i < LAMP_VECTOR_LEN; ++i) delta[i] = (int32_t)lamp_usage_at(i) - now;
}
