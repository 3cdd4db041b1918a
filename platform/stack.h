/*
 * Stacking service: unit numbers, callback registrations and the transport
 * of module data between the units of a stack.
 */
#ifndef PLATFORM_STACK_H
#define PLATFORM_STACK_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define STK_USO_DETACH_PRI_DHCPSNOOP 3
#define STK_USO_ATTACH_PRI_DHCPSNOOP 2
#define STK_USO_UPDATE_PRI_DHCPSNOOP 5
#define STK_USO_DATASYNC_PRI_DHCPSNOOP 3

/* A block of module data carried by the service: data pointer and length. */
typedef struct UsoData {
    void *data;
    uint32_t len;
} UsoData;

/* unitMask: one bit per unit (bit u for unit u); arg is the service's own. */
typedef uint32_t (*StkUsoUnitCb)(uint32_t unitMask, void *arg);
typedef uint32_t (*StkUsoDataSyncSetCb)(UsoData *usoData, void *arg);
typedef uint32_t (*StkUsoDataSyncGetCb)(UsoData *usoData);
typedef uint32_t (*StkUsoDataSyncFreeCb)(UsoData *usoData);
typedef uint32_t (*StkUsoRuntimeDataHnd)(UsoData *usoData);

/* This unit's number (from 1). */
uint32_t stkGetCurrentUnit(void);
/* Sends a runtime record to the other units; 0 on success. */
uint32_t stkUsoRuntimeDataSync(uint32_t mid, UsoData *usoData);
/* Registrations; 0 on success. */
uint32_t stkUsoDataSyncCbReg(uint32_t mid, uint32_t priority, StkUsoDataSyncSetCb setCb,
                             StkUsoDataSyncGetCb getCb, StkUsoDataSyncFreeCb freeCb);
uint32_t stkUsoRuntimeDataHndReg(uint32_t mid, StkUsoRuntimeDataHnd hnd);
uint32_t stkUsoAttachCbReg(uint32_t mid, uint32_t priority, StkUsoUnitCb cb);
uint32_t stkUsoDetachCbReg(uint32_t mid, uint32_t priority, StkUsoUnitCb cb);
uint32_t stkUsoUpdateCbReg(uint32_t mid, uint32_t priority, StkUsoUnitCb cb);

#ifdef __cplusplus
}
#endif

#endif
