/* Entries of the host kit meant for its own tests only; not installed. */
#ifndef LUMETRY_HOST_HOST_INTERNAL_H_
#define LUMETRY_HOST_HOST_INTERNAL_H_

#ifdef __cplusplus
extern "C" {
#endif

/* Sets how long the crash hook waits for the crash processor (milliseconds)
 * before it kills it. */
void lh_set_wait_limit_ms(unsigned limit_ms);

#ifdef __cplusplus
}
#endif

#endif /* LUMETRY_HOST_HOST_INTERNAL_H_ */
