// SPDX-License-Identifier: Apache-2.0
#define _GNU_SOURCE  // O_CLOEXEC, and the CPU sets that the library's header uses
#include "host/ftrace/TracefsCalls.h"

#include <errno.h>
#include <stdbool.h>
#include <tracefs/tracefs.h>

const char* CeTracefsDirectory(void)
{
    return tracefs_tracing_dir();
}

void CeTracefsWalk(int (*visit)(const char* name, void* context), void* context)
{
    tracefs_instances_walk(visit, context);
}

struct tracefs_instance* CeTracefsCreate(const char* name)
{
    struct tracefs_instance* instance = tracefs_instance_create(name);
    if (instance != NULL && !tracefs_instance_is_new(instance)) {
        tracefs_instance_free(instance);
        errno = EEXIST;
        return NULL;
    }
    return instance;
}

int CeTracefsRemove(const char* name)
{
    struct tracefs_instance* instance = tracefs_instance_alloc(NULL, name);
    if (instance == NULL) {
        return -1;
    }
    const int result = tracefs_instance_destroy(instance);
    const int error = errno;
    tracefs_instance_free(instance);
    errno = error;
    return result;
}

void CeTracefsRelease(struct tracefs_instance* instance)
{
    tracefs_instance_free(instance);
}

int CeTracefsOpen(struct tracefs_instance* instance, const char* file, int flags)
{
    char* path = tracefs_instance_get_file(instance, file);
    if (path == NULL) {
        return -1;
    }
    const int descriptor = open(path, flags | O_CLOEXEC);
    const int error = errno;
    tracefs_put_tracing_file(path);
    errno = error;
    return descriptor;
}

int CeTracefsWrite(struct tracefs_instance* instance, const char* file, const char* text)
{
    return tracefs_instance_file_write(instance, file, text);
}

char* CeTracefsRead(struct tracefs_instance* instance, const char* file)
{
    return tracefs_instance_file_read(instance, file, NULL);
}

char* CeTracefsReadEvent(struct tracefs_instance* instance, const char* system, const char* event, const char* file)
{
    return tracefs_event_file_read(instance, system, event, file, NULL);
}
