/* A zero-terminated string that knows its length, grows as text is appended, and lives in a memory category of the
 * caller's choice.
 *
 *     CountedString* line = __VeskStrAlloc(category, 64, "module");
 *     __VeskStrAppend(line, " loaded");
 *     puts(line->buffer);
 *     __VeskStrDestroy(line);
 *
 * A text that is passed in may be part of the string itself. A null text counts as an empty one. Text that would make a
 * string longer than VESK_COUNTED_STRING_MAX_LENGTH is cut off there.
 *
 * Locks: none. The caller serialises every use of one string. */
#ifndef VESKRT_COUNTED_STRING_H
#define VESKRT_COUNTED_STRING_H

#include "veskrt/base.h"

VESK_BEGIN_DECLS

#define VESK_COUNTED_STRING_MAX_LENGTH 0xFFFFFFFEu

typedef struct CountedString {
  uint32_t length;   /* characters before the terminating zero; less than capacity */
  uint32_t capacity; /* bytes of the buffer */
  uint32_t category; /* memory category of the record and the buffer */
  char* buffer;      /* owned by the record; moves when the string grows */
} CountedString;

/* A new string with a copy of the text, in a buffer of `capacity` bytes, or of what __VeskStrSet would grow it to if that
 * is not enough. */
VESK_API CountedString* __VeskStrAlloc(uint32_t category, uint32_t capacity, const char* text);

/* Replaces the contents with a copy of the text and returns the string; null for a null string. If text and terminator do
 * not fit, the new capacity is twice the text's length, at least 1. The buffer never shrinks. */
VESK_API CountedString* __VeskStrSet(CountedString* string, const char* text);

/* Appends a copy of the text. If it does not fit, the new capacity is twice the sum of the old capacity and the text's
 * length, so that appending piece by piece costs linear time. Nothing for a null string or text. */
VESK_API void __VeskStrAppend(CountedString* string, const char* text);

/* Frees buffer and record. Nothing for null. */
VESK_API void __VeskStrDestroy(CountedString* string);

VESK_END_DECLS

#endif
