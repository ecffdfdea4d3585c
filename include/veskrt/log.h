/* The process-wide log: one XML file of records, each an instance of a registered message type.
 *
 * A record is a `msg` element with an id, its source, type, severity, time and either free text or one `arg`
 * element for each argument of its type; or it is a plain comment. It holds no sentences: whoever reads the
 * log turns types and arguments into text. A record is written whole, under the file's lock, and is with the
 * system when the call returns. Writing allocates nothing once the file exists, so the log works while memory
 * is exhausted.
 *
 *     __VeskCreateLogger("mytool", "mytool.log", 0);       // else the first record creates "vesklog.log"
 *     int32_t source = __VeskGetLoggerHandle("mytool");
 *     const char* arguments[] = {"file", "line", NULL};
 *     LogMessageDefinition definition = {"BAD_INPUT", arguments, 0, source};
 *     uint32_t badInput = __VeskRegisterLogMessage2(&definition);
 *     __VeskLogInternal(VESKLOG_SEVERITY_WARNING, badInput, 0,
 *                       VESKLOG_ARG_STRING, "a.txt", VESKLOG_ARG_INT, 7);
 *     __VeskLogInternal(VESKLOG_SEVERITY_INFO, VESKLOG_MSG_COMMENT, 0, "read %d files", 3);
 *
 * May be called from any thread, also with locks of the memory manager held. A child process that fork made
 * goes on logging to the same file. A record that a thread writes from inside a record (from a signal
 * handler) is dropped. */
#ifndef VESKRT_LOG_H
#define VESKRT_LOG_H

#include "veskrt/base.h"

VESK_BEGIN_DECLS

/* ---- Severities ---- */
#define VESKLOG_SEVERITY_ERROR 0u
#define VESKLOG_SEVERITY_WARNING 1u
#define VESKLOG_SEVERITY_INFO 2u

/* ---- Tags: each announces the type of the variadic argument behind it ---- */
#define VESKLOG_ARG_STRING 0x3EDE9134  /* const char*, written escaped */
#define VESKLOG_ARG_INT 0x4AFE0077     /* int32_t, "%d" */
#define VESKLOG_ARG_POINTER 0x020FB6DE /* void*, "%p" */

/* ---- Message types ---- */
#define VESKLOG_FLAG_TEXT 1u /* free text: the format and its arguments, as a comment inside the record */
#define VESKLOG_FLAG_COMMENT_ONLY 2u /* no record element: the formatted text as a plain comment */
#define VESKLOG_FLAG_NO_DISPLAY 4u   /* the record says display='false' */

/* What a caller registers; the caller keeps it, the registry copies it. */
typedef struct LogMessageDefinition {
  const char* type;                 /* the type's name */
  const char* const* argumentNames; /* null-terminated, in the order of the arguments; may be null */
  uint32_t flags;                   /* VESKLOG_FLAG_... */
  int32_t loggerHandle;             /* whose message it is: a logger handle */
} LogMessageDefinition;

#define VESKLOG_MSG_COMMENT 0u  /* built in: a plain comment */
#define VESKLOG_MSG_INTERNAL 1u /* built in: free text, for errors */
#define VESKLOG_MAX_MESSAGES 128u

/* The library's own types. Each identifier is 0 until __VeskRtStartup has registered them. */
VESK_API extern uint32_t VESKLOG_MSG_ABNORMAL_TERMINATE;
VESK_API extern uint32_t VESKLOG_MSG_OUT_OF_MEMORY;
VESK_API extern uint32_t VESKLOG_MSG_COLLECT_MEMORY;
VESK_API extern uint32_t VESKLOG_MSG_MEMORY_IS_TIGHT;
VESK_API extern uint32_t VESKLOG_MSG_FREEING_RESERVES; /* "num_bytes": int */
VESK_API extern uint32_t VESKLOG_MSG_BAD_OPTION;       /* "option": string */
VESK_API extern uint32_t VESKLOG_MSG_BAD_ARGUMENT;     /* "option": string */
VESK_API extern uint32_t VESKLOG_MSG_FAIL_CONVERT_FILENAME;
VESK_API extern uint32_t VESKLOG_MSG_FAIL_OPEN_FILE;         /* "filename": string */
VESK_API extern uint32_t VESKLOG_MSG_FAIL_SEEK_FILE;         /* "filename": string */
VESK_API extern uint32_t VESKLOG_MSG_FAIL_READ_FILE;         /* "filename": string */
VESK_API extern uint32_t VESKLOG_MSG_FAIL_READ_FILE_VERBOSE; /* "filename", "srerror": strings */

/* Registers a copy of the definition. Returns its identifier, dense and ascending, never reused;
 * VESK_INVALID_ID when 128 types are registered, or when the definition, its type or its logger handle is not
 * valid (which is logged). Takes no lock. */
VESK_API uint32_t __VeskRegisterLogMessage2(const LogMessageDefinition* definition);
VESK_API uint32_t __VeskRegisterLogMessage(const LogMessageDefinition* definition); /* its older name */

/* Registers the library's twelve types and fills the identifiers above; start-up calls it. Returns 1, or 0 at
 * the first failure, with the identifiers unchanged. */
VESK_API int __VeskRegisterInternalVESKRTLogMessages(void);

/* ---- The log file ---- */

/* Creates the log, or continues one with `append`. Returns 1; 0 before __VeskRtStartup, for a null argument,
 * or when the file cannot be opened. A second call puts a new file in the place of the first, which stays
 * open. */
VESK_API int __VeskCreateLogger(const char* source, const char* path, int append);

/* Makes sure the log's stream works, reopening the file if it does not. Returns 1 if it works, else 0. */
VESK_API int __VeskReopenLogger(void);

/* Writes the closing tag and flushes. The file stays open, and later records follow the tag. Nothing without
 * a log. */
VESK_API void __VeskCloseLogger(void);

/* Writes one record. What follows `suppressDisplay` (nonzero adds display='false') depends on the message
 * type:
 *
 *   - text and comment types: a format and its arguments, as for printf;
 *   - types with arguments: for each argument name of the type a tag, then the value that the tag announces;
 *     after any other tag nothing more is read and the remaining arguments are written empty;
 *   - types without arguments: nothing.
 *
 * A message that is not registered is written as a comment, from a format. Before start-up the record is
 * dropped. A severity above 2 is written as VESKLOG_SEVERITY_INFO. */
VESK_API void __VeskLogInternal(uint32_t severity, uint32_t messageId, int suppressDisplay, ...);

/* ---- Logger handles: the named sources that message types belong to ---- */

/* A handle, 1 to 15, for a copy of the name; -1 when all are out, the name is null, or there has been no log
 * file yet. */
VESK_API int32_t __VeskGetLoggerHandle(const char* name);

/* Releases the name of a handle if `name` begins with it: 1, else 0. The handle itself is never handed out
 * again; records of types bound to it then have an empty source. */
VESK_API int __VeskReleaseLoggerHandle(int32_t handle, const char* name);

VESK_END_DECLS

#endif
