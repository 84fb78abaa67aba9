/* libhostseal: seals a small secret to the machine it runs on.
 *
 * A sealed blob opens again only where a majority of the machine facts it was
 * sealed with still hold; see docs/hostseal.md for the facts, the blob and
 * what this does and does not protect against.
 *
 * Every result is a block from malloc that the caller releases with free().
 * Both functions may be called from several threads at once.
 *
 * Tracing: when the process exports
 *     void QX_Fingerprint_Debug(const char* format, ...);
 * in its global symbol scope (an executable linked with -rdynamic, or a
 * library loaded RTLD_GLOBAL), the library calls it with one line per step:
 * the names of facts and counts, never a fact's value, a key or data. */
#ifndef HOSTSEAL_HOSTSEAL_H
#define HOSTSEAL_HOSTSEAL_H

#define HOSTSEAL_API __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

/* Seals *length bytes of data. On success *length is the blob's length; on
 * failure the result is NULL and *length is left as it was. Fails for NULL
 * data with a nonzero length, a negative length, fewer than two readable
 * machine facts, or a failure of the crypto library. */
HOSTSEAL_API void* QX_N_Choose_K_Encrypt(const void* data, int* length);

/* Opens a blob of *length bytes. On success *length is the data's length and,
 * when the blob opened with only some of its recorded facts still matching,
 * *flag is set non-zero: the caller should seal the data again. *flag is
 * never cleared (the caller sets it to 0) and is left alone on failure, as is
 * *length. flag may be NULL. Fails (NULL) on another machine, when a majority
 * of facts changed, and for a damaged, truncated, empty or unknown blob. */
HOSTSEAL_API void* QX_N_Choose_K_Decrypt(const void* blob, int* length, int* flag);

#ifdef __cplusplus
}
#endif

#endif
