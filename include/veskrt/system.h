/* Facts about the machine: the page size, the processors, what cpuid tells.
 *
 *     VeskCpuid features;
 *     __VeskCpuidEx(7, 0, &features);
 *     const int hasAvx2 = features.ebx >> 5 & 1;
 *     void* area = __VeskMalloc(category, __VeskGetXsaveAreaMaxSize() + 63, 0);     // to be aligned to 64
 *
 * Nothing here takes a lock or allocates from the library's allocator. */
#ifndef VESKRT_SYSTEM_H
#define VESKRT_SYSTEM_H

#include "veskrt/base.h"

VESK_BEGIN_DECLS

/* The four registers as cpuid leaves them. */
typedef struct VeskCpuid {
  uint32_t eax;
  uint32_t ebx;
  uint32_t ecx;
  uint32_t edx;
} VeskCpuid;

/* Bytes in a memory page. */
VESK_API uint32_t __VeskGetNativePageSize(void);

/* Processors, from /proc/stat, else from /proc/cpuinfo; 0 when neither can be read. Reads files: start-up
 * keeps the answer in __veskNumberOfProcessors. */
VESK_API uint32_t __VeskGetNProcs(void);

/* Executes cpuid for a leaf and sub-leaf; a null record is ignored. */
VESK_API void __VeskCpuidEx(uint32_t leaf, uint32_t subleaf, VeskCpuid* result);

/* The most bytes an XSAVE area can need on this processor, every supported state component included. */
VESK_API uint32_t __VeskGetXsaveAreaMaxSize(void);

VESK_END_DECLS

#endif
