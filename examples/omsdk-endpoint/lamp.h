// SPDX-License-Identifier: Apache-2.0
/* The demo device's power model: a dimmable lamp with levels 0 (off) to 10
 * (full), whose usage in watts follows from the level. */
#ifndef OMSDK_DEMO_LAMP_H
#define OMSDK_DEMO_LAMP_H

#include <stdint.h>

#define LAMP_LEVEL_MAX 10
#define LAMP_VECTOR_LEN 11 /* one entry per level, 0 to 10 */

/* Watts drawn at a level; levels above the maximum count as the maximum. */
uint16_t lamp_usage_at(uint8_t level);

/* usage[i]: the watts the lamp would draw at level i. */
void lamp_usage_vector(uint16_t usage[LAMP_VECTOR_LEN]);

/* delta[i]: how the usage would change, in watts, going from `current` to
 * level i (negative when it would fall). */
void lamp_delta_vector(int32_t delta[LAMP_VECTOR_LEN], uint8_t current);

#endif
