/* SPDX-License-Identifier: Apache-2.0 */
/* The demo lamp's callbacks for the library, and the state they keep. */
#ifndef OMSDK_DEMO_DEVICE_H
#define OMSDK_DEMO_DEVICE_H

#include <stdio.h>

#include <omsdk.h>

/* Where the callbacks read attributes from, write their lines to, and whom
 * they tell when the session becomes ACTIVE (may be NULL). Before the
 * session starts. */
void lamp_device_attach(svc_session *session, FILE *out, void (*on_active)(void));
/* The callback table (static: it outlives every session). */
svc_callback_registry *lamp_device_registry(void);
int lamp_device_level(void);
/* A text attribute copied under the session's lock (safe on any thread);
 * "" when it does not fit `size`. */
const char *lamp_device_text(int32_t id, char *buf, uint32_t size);
/* 1 once the session reported SHUTDOWN. */
int lamp_device_shutdown_seen(void);

#endif
