/* Configuration file reader and the location fix log. */
#ifndef LAPI_SRV_LOCATIONLOG_H
#define LAPI_SRV_LOCATIONLOG_H

#include <stdint.h>

#include "LAPI_Msg.h"

/* ------------------------------------------------------------------------ */
/* Configuration file reader                                                 */
/* ------------------------------------------------------------------------ */

enum {
    /* fgets buffer: a line is taken in pieces of at most 127 characters. */
    LAPI_SRV_CFG_LINE_SIZE = 128,
    /* The block get_entry_value returns, zero-filled, owned by the caller. */
    LAPI_SRV_CFG_VALUE_SIZE = 64,
    /* Longest value that fits the block with its terminating zero; a longer
     * value is refused (the key counts as missing on that line). */
    LAPI_SRV_CFG_VALUE_MAX_LEN = LAPI_SRV_CFG_VALUE_SIZE - 1,
    /* Most bytes of the file searched for one key; the file holds three
     * short settings, so anything longer is not a configuration file. */
    LAPI_SRV_CFG_MAX_FILE_BYTES = 64 * 1024,
};

/* A new zero-filled 64-byte block with the key's value (caller frees), or null. */
char *get_entry_value(const char *filename, const char *entry_name);

/*
 * Searches one line (or one piece of a long line) for entry_name = value.
 * Returns 1 and copies the value, zero-terminated, into dst, which must hold
 * LAPI_SRV_CFG_VALUE_SIZE bytes; returns 0 when the line yields no value.
 */
int find_entry(const char *line, const char *entry_name, char *dst);

/* ------------------------------------------------------------------------ */
/* Location fix log                                                          */
/* ------------------------------------------------------------------------ */

enum {
    /* Length of the header line at the top of the file; the first record
     * goes right behind it. */
    LAPI_SRV_LOG_HEADER_LEN = 75,
    /* Records of this many characters or more are refused. */
    LAPI_SRV_LOG_MAX_RECORD_LEN = 400,
    /* Accepted range of "LogFileSize", in KiB. */
    LAPI_SRV_LOG_MIN_SIZE_KIB = 1,
    LAPI_SRV_LOG_MAX_SIZE_KIB = 512,
};

/* 1 while the fix log is on (feature flag set and a reasonable size). */
extern uint8_t gLogAvailable;
/* Maximum size of the file in bytes ("LogFileSize" x 1024). */
extern uint32_t gMaxLogSize;
/* Position in the file where the next record is written. */
extern uint32_t gLogoffset;

void LAPI_SRV_LOG_Init(void);
/* Opens (creating when needed) the log file and reads the header: 0 or -1. */
int LAPI_SRV_LOG_Open(void);
/* Writes one record at the current offset, wrapping behind the header: 0 or -1. */
int LAPI_SRV_LOG_Write(const char *text);
/* One fix-log line for a client's location request / a fix sent to a client. */
void LAPI_SRV_LOG_LocationReq(const GetLocationReq *pMsg, uint8_t sid, uint8_t tid);
void LAPI_SRV_LOG_LocationRsp(const GetLocationRsp *pMsg, uint8_t sid, uint8_t tid);
/* Closes the log file if it is open (the next record opens it again). */
void LAPI_SRV_LOG_Close(void);

#endif /* LAPI_SRV_LOCATIONLOG_H */
