/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file omsdk/filter.h
 * @brief Keyword lists: comma-separated and NUL-separated forms.
 *
 * Conversion between comma-separated and NUL-separated keyword strings, and
 * splitting a keyword string into a keyword_list. Any thread may call
 * these; they keep no state. What they return is the caller's, freed with
 * free().
 */
#ifndef OMSDK_FILTER_H
#define OMSDK_FILTER_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** A null-terminated array of pointers to NUL-terminated, non-empty
 * keywords. createKeywordList allocates the array and the keyword text it
 * points into as ONE heap block: a single free() of the list releases both.
 * Never free the keyword pointers themselves. */
typedef char **keyword_list;

/** Replaces every ',' in `s` by a NUL, in place. Returns the length `s` had
 * before plus one (0 for NULL). */
int32_t cv_comma_list2kwl(char *s);

/** A new heap copy of the comma-separated `s` with every ',' replaced by a
 * NUL; the caller frees it. NULL when `s` is NULL or memory runs out. */
char *corvane_conv_kw_list(const char *s);

/** A new heap copy of the NUL-separated list of `size` bytes with the NULs
 * between keywords turned into ','; the last byte is always a NUL (it is
 * written even when the input's is not). The caller frees it. NULL when
 * `list` is NULL, `size` is not positive or memory runs out. */
char *cv_get_comma_sep_list(const char *list, int32_t size);

/** Splits `s` at commas, blanks and tabs into its non-empty keywords. The
 *  result is one heap block (see keyword_list): release it with free().
 *  NULL when `s` is NULL or memory runs out (logged at ERROR or FATAL). Logs
 *  the count at DEBUG. The name carries no prefix. */
keyword_list createKeywordList(const char *s);

#ifdef __cplusplus
}
#endif

#endif
