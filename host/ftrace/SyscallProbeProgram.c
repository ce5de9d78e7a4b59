// SPDX-License-Identifier: Apache-2.0
#include "host/ftrace/SyscallProbeProgram.h"

// libbpf reads the object where it lies: ELF wants it aligned.
__asm__(
    ".section .rodata\n"
    ".balign 8\n"
    ".global CeProbeProgram, CeProbeProgramEnd\n"
    ".hidden CeProbeProgram, CeProbeProgramEnd\n"
    "CeProbeProgram:\n"
    ".incbin \"" CE_PROBE_OBJECT
    "\"\n"
    "CeProbeProgramEnd:\n"
    ".byte 0\n"
    ".previous\n");
