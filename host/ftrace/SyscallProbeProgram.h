/* SPDX-License-Identifier: Apache-2.0 */
/* The compiled program for the kernel, an ELF object. */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

extern const unsigned char CeProbeProgram[];
extern const unsigned char CeProbeProgramEnd[];

#ifdef __cplusplus
}
#endif
