// SPDX-License-Identifier: Apache-2.0
// The engine fuzz target's seed corpus, written by make_corpus --engine.
#ifndef OMSDK_FUZZ_ENGINE_SEEDS_H
#define OMSDK_FUZZ_ENGINE_SEEDS_H

// Writes one file per seed into `dir` (which exists); returns how many.
int write_engine_seeds(const char *dir);

#endif
