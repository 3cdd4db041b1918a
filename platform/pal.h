/*
 * Platform abstraction layer: memory, named mutexes, named message queues,
 * tasks, sleep and timers.
 *
 * Every implementation (simulation, live Linux, the switch itself) provides
 * all of these with C linkage.
 */
#ifndef PLATFORM_PAL_H
#define PLATFORM_PAL_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- memory ---------------------------------------------------------- */

/* Returns size bytes (contents undefined) owned by tag, or NULL. */
void *pal_alloc(size_t size, const char *tag);
/* Returns count * size zero-filled bytes, or NULL. */
void *pal_calloc(size_t count, size_t size, const char *tag);
/* Gives back a block of pal_alloc/pal_calloc; NULL is ignored. */
void pal_free(void *p);

/* ---- mutexes --------------------------------------------------------- */

typedef struct PalMutex PalMutex;

#define PAL_WAIT_FOREVER (-1)

/* NULL on failure. */
PalMutex *pal_mutex_create(const char *name);
void pal_mutex_destroy(PalMutex *m);
/* timeout in milliseconds, PAL_WAIT_FOREVER to wait without limit; 0 on success. */
int32_t pal_mutex_take_int(PalMutex *m, int32_t timeout);
int32_t pal_mutex_give_int(PalMutex *m);

/* ---- message queues -------------------------------------------------- */

/* A queue handle is positive. A failed creation yields 0 or PAL_MQ_ERROR:
 * callers test for the value their own contract names. */
typedef int32_t PalMsgQ;
#define PAL_MQ_ERROR ((PalMsgQ)-1)

/* depth records of recordSize bytes each; option is passed through. */
PalMsgQ pal_msgQ_create(const char *name, uint32_t depth, uint32_t recordSize, uint32_t option);
/*
 * Copies size bytes of buffer into the queue. wait: 0 = do not wait,
 * PAL_WAIT_FOREVER = wait for room, else milliseconds. Returns -1 on failure
 * (bad handle, size larger than the record size, queue full after the wait),
 * any other value on success.
 */
int32_t pal_msgQ_send(PalMsgQ q, const void *buffer, uint32_t size, int32_t wait, uint32_t option);
/*
 * Copies the oldest record into buffer (at most size bytes). wait as for
 * send. *word is an output word of the queue service. Returns -1 when
 * nothing was received, otherwise the number of bytes copied.
 */
int32_t pal_msgQ_receive(PalMsgQ q, void *buffer, uint32_t size, int32_t wait, uint32_t *word);

/* ---- tasks ----------------------------------------------------------- */

typedef struct PalThread PalThread;
typedef void (*PalThreadEntry)(void *arg);

/* The task starts running entry(arg) at once. NULL on failure. */
PalThread *pal_thread_create(const char *name, uint32_t stackSize, uint32_t priority,
                             PalThreadEntry entry, void *arg);
void pal_thread_destroy(PalThread *t);
/* Milliseconds. */
void pal_sleep(uint32_t ms);

/* ---- timers ---------------------------------------------------------- */

typedef struct PalTimerId {
    uint8_t id[32];
} PalTimerId;

/* The first byte of a timer id is non-zero when the timer exists. */
#define TIMER_ID_IS_VALID(t) ((t).id[0] != 0)

typedef struct PalTimeSpec {
    uint32_t sec;
    uint32_t usec;
} PalTimeSpec;

/* Called on the timer service's thread with the argument given to add_timer. */
typedef uint32_t (*PalTimerCallback)(uint32_t arg);

/*
 * Starts a timer that calls callback(arg) every period, repetitions times
 * (-1: without end). Fills *timerId; returns 0 on success.
 */
uint32_t add_timer(PalTimerId *timerId, const char *name, PalTimeSpec period,
                   PalTimerCallback callback, uint32_t arg, int32_t repetitions);

/* ---- files ------------------------------------------------------------ */

/*
 * The host path of a file the module names by its switch path. On the
 * switch this is the path itself; host programs may keep the module's files
 * in a directory of their choice. The module logs the path it names.
 */
const char *pal_file_path(const char *path);

#ifdef __cplusplus
}
#endif

#endif
