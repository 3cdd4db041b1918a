/*
 * Port handles.
 *
 * A handle `up` is 32 bits: port kind in the most significant byte
 * (1 = physical port, 2 = port channel), then stack unit, slot and port
 * number. Flat port indexes number the ports of the stack from 0: each unit
 * owns 64 indexes for its physical ports, the port channels follow.
 */
#ifndef PLATFORM_PORT_H
#define PLATFORM_PORT_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef uint32_t up;

#define UP_TYPE_PHYSICAL 1u
#define UP_TYPE_PORT_CHANNEL 2u
#define UP_INVALID 0xFFFFFFFFu

#define UP_MAKE(kind, unit, slot, port)                                                   \
    ((((uint32_t)(kind) & 0xFFu) << 24) | (((uint32_t)(unit) & 0xFFu) << 16) |          \
     (((uint32_t)(slot) & 0xFFu) << 8) | ((uint32_t)(port) & 0xFFu))
#define UP_KIND(u) (((uint32_t)(u) >> 24) & 0xFFu)
#define UP_UNIT(u) (((uint32_t)(u) >> 16) & 0xFFu)
#define UP_SLOT(u) (((uint32_t)(u) >> 8) & 0xFFu)
#define UP_PORT(u) ((uint32_t)(u) & 0xFFu)

/* Longest text usUp2Str writes for a valid port, without the terminator. */
#define UP_STR_MAX 11
/* Room callers give usUp2Str. */
#define UP_STR_BUF 32

/*
 * *handle = the port of an index (UP_INVALID past the last index).
 * flag 1: index is a running index from 0 (index 0 is the first port);
 * flag 0: index is a port index from 1, as inner_up_unitbase_get and
 * inner_up_slotbaseoffset_get count it (unit base + slot base + port number;
 * port channels 64 + number). func and line name the caller.
 */
uint32_t inner_up_from_index(up *handle, uint32_t index, uint32_t flag, const char *func,
                             uint32_t line);
/* Non-zero when the handle names a port of the switch. */
uint32_t inner_up_is_valid(up handle);
/* Non-zero when the port is provisioned for a unit that is not present. */
uint32_t inner_up_is_provision(up handle);
/* Non-zero when the unit number names a present stack member. */
uint32_t inner_up_unit_is_valid(uint32_t unit);
/* First port index of a unit, and offset of a slot's ports within a unit. */
uint32_t inner_up_unitbase_get(uint32_t unit);
uint32_t inner_up_slotbaseoffset_get(uint32_t slot);
/* Printable name ("1/0/5", "po2") into text (UP_STR_BUF bytes); 0 on success. */
uint32_t usUp2Str(up handle, char *text, uint32_t flag);
/* Handle of a printable name (leading blanks allowed); 0 on success. */
uint32_t usStr2Up(int32_t unit, const char *text, up *handle, uint32_t flag);

#ifdef __cplusplus
}
#endif

#endif
