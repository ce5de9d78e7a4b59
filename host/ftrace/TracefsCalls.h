// SPDX-License-Identifier: Apache-2.0
// The calls of libtracefs that this folder uses, for C++: the library's own header does not compile as C++ (release
// 1.6.4 passes a plain 0 for an enumeration).
//
// Texts that are handed out were made by malloc and belong to the caller. Calls that return int: 0 or more for success,
// -1 for failure with errno set.
#ifndef CE_HOST_FTRACE_TRACEFS_CALLS_H
#define CE_HOST_FTRACE_TRACEFS_CALLS_H

#ifdef __cplusplus
extern "C" {
#endif

struct tracefs_instance;

// Where tracefs is mounted; mounts it at /sys/kernel/tracing if it is nowhere. Null: it cannot be had. Not the
// caller's.
const char* CeTracefsDirectory(void);

// Calls `visit` with the name of each instance that there is.
void CeTracefsWalk(int (*visit)(const char* name, void* context), void* context);

// Makes an instance. Null, errno EEXIST, when there is one of that name.
struct tracefs_instance* CeTracefsCreate(const char* name);

// Removes an instance that this or another program made. Fails with EBUSY while one of its files is open.
int CeTracefsRemove(const char* name);

// Frees the handle; the instance itself stays.
void CeTracefsRelease(struct tracefs_instance* instance);

int CeTracefsOpen(struct tracefs_instance* instance, const char* file, int flags);
int CeTracefsWrite(struct tracefs_instance* instance, const char* file, const char* text);
char* CeTracefsRead(struct tracefs_instance* instance, const char* file);
char* CeTracefsReadEvent(struct tracefs_instance* instance, const char* system, const char* event, const char* file);

#ifdef __cplusplus
}
#endif

#endif
