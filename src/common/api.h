// SPDX-License-Identifier: Apache-2.0
// One export macro for the whole library: everything else stays hidden.
#ifndef OMSDK_COMMON_API_H
#define OMSDK_COMMON_API_H

#define OMSDK_API extern "C" __attribute__((visibility("default")))

// Code that runs once per connection, key or configuration, never per
// message: the compiler optimises it for size and places it apart.
#define OMSDK_COLD __attribute__((cold))

#endif
