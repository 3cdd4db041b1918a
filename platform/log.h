/*
 * Debug output, process and module names, switch state and the system log.
 */
#ifndef PLATFORM_LOG_H
#define PLATFORM_LOG_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The debug switch of a module: 1 = on. */
uint32_t debugFlagGet(uint32_t mid);
/* Writes one formatted line of a module's debug output. */
int debugPrintf(uint32_t mid, const char *format, ...);
/* Printable names of a module and a process. */
const char *midNameGet(uint32_t mid);
uint32_t pidGetCurrent(void);
const char *pidNameGet(uint32_t pid);
/* Non-zero once the switch application has finished starting. */
uint32_t isSwitchInited(void);
/*
 * Adds an entry to the system log. The code names a message of the log
 * catalogue, which also says which arguments are texts (passed as pointers)
 * and which are numbers.
 */
uint32_t syslogAdd(uint32_t code, uintptr_t a1, uintptr_t a2, uintptr_t a3, uintptr_t a4,
                   uintptr_t a5, uintptr_t a6);

#ifdef __cplusplus
}
#endif

#endif
