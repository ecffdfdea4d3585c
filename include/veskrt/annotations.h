/* Annotation tables: named places in compiled modules, each with an address and a location.
 *
 * A program's author marks places (veskrt/annotate.h); the linker gathers the marks of a module in one
 * section. A collector that has the section's bytes hands them to __VeskQELParseAndProcessRecords and gets a
 * callback for each annotation. Modules without a section can be described from outside, by definition files:
 * text, one annotation a line:
 *
 *     name "module path" address constant          # e.g.  start "/opt/app/lib.so" 1a2b 0x10
 *
 * (hexadecimal address relative to the module's load base; constant with C prefixes; quotes keep white space
 * together).
 *
 *     static uint64_t list(VESK_QEL_RECORD* record, uint64_t context) { puts(record->name); return 0; }
 *     __VeskQELParseAndProcessRecords(loadBase, section, sectionSize, list, NULL);
 *     if (__VeskQELLoadExternalDefinitions("extra.txt"))
 *       __VeskQELProcessExternalRecords("/opt/app/lib.so", loadBase, list, NULL);
 *     __VeskQELCleanupDefinitions();
 *
 * Section bytes come from files that nobody vouches for: nothing outside the section is read, whatever they
 * say. No locks: a section walk touches only its arguments and may run on any thread; loading, delivering and
 * cleaning up definitions must not run at the same time as one another. */
#ifndef VESKRT_ANNOTATIONS_H
#define VESKRT_ANNOTATIONS_H

#include "veskrt/base.h"

VESK_BEGIN_DECLS

/* Where an annotated value is found. */
typedef struct VESK_QEL_LOCATION {
  int64_t value;       /* a register's DWARF number, or a constant */
  uint32_t isRegister; /* 1: register `value`, plus `offset`; 0: the constant `value` */
  int32_t offset;      /* added to the register's content */
} VESK_QEL_LOCATION;

/* What a callback gets; valid during the call only. */
typedef struct VESK_QEL_RECORD {
  uint64_t address;                /* the annotated address, relocated */
  const char* name;                /* in the section, or in the definition */
  const unsigned char* expression; /* in the section, from its length on; null for definitions */
  uint32_t probe;                  /* the item's probe word, or 0 */
  uint32_t hasLocation;            /* 1: `location` is filled; 0: it is undefined */
  VESK_QEL_LOCATION location;
} VESK_QEL_RECORD;

/* One line of a definition file. Strings and location belong to the definition (__VeskMalloc, category 0). */
typedef struct VESK_QEL_DEFINITION {
  uint32_t address;            /* relative to the module's load base */
  char* name;                  /* as written */
  char* modulePath;            /* without its quotes, runs of '/' folded; null when the line had none */
  uint32_t hasValue;           /* 1 when the line had a constant */
  VESK_QEL_LOCATION* location; /* the constant; null when it had none */
  struct VESK_QEL_DEFINITION* next;
} VESK_QEL_DEFINITION;

/* Bits of a version 1.2 table's flags word. */
VESK_API extern const uint64_t VESK_QEL_FLAG_PCREL; /* 1: addresses are relative to the table's header */
VESK_API extern const uint64_t VESK_QEL_FLAG_PROBE; /* 2: items carry a probe word */
VESK_API extern const uint64_t VESK_QEL_FLAG_32BIT; /* 4: addresses are signed 32-bit values */

/* Called with a record and the context given along; the result is ignored. */
typedef uint64_t (*VeskQELCallback)(VESK_QEL_RECORD* record, uint64_t context);

/* Walks every table in the `size` bytes at `section` and calls back for each item, in order. `loadBase` is
 * where the module was loaded (used by version 1.1 tables). With a null callback the tables are only walked
 * and checked. The first thing that is wrong, or not inside the section, is noted in the log and ends the
 * walk; callbacks made by then stand. A location expression of another form than register, register plus
 * offset or small constant is noted and delivered as the constant 0. */
VESK_API void __VeskQELParseAndProcessRecords(uint64_t loadBase, const unsigned char* section, uint64_t size,
                                              VeskQELCallback callback, void* context);

/* Appends a file's definitions to the process-wide list. Lines end in LF or CR LF; one longer than 65,533
 * characters is taken as several. Returns 1; 0 when the file cannot be opened, which is logged. */
VESK_API int __VeskQELLoadExternalDefinitions(const char* path);

/* Parses one line, which it modifies, into a definition of zeros. Returns 1 if the line had exactly four
 * fields, else 0, with the fields before the fault filled in; a second field with no room for quotes is a
 * fault. */
VESK_API int __VeskQELParseDefinition(char* line, VESK_QEL_DEFINITION* definition);

/* Calls back for every loaded definition of the module, in order; runs of '/' in the path are folded first,
 * and then it must match exactly. A null callback or path is ignored. */
VESK_API void __VeskQELProcessExternalRecords(const char* modulePath, uint64_t loadBase,
                                              VeskQELCallback callback, void* context);

/* Releases every definition; loading may start again. */
VESK_API void __VeskQELCleanupDefinitions(void);

VESK_END_DECLS

#endif
