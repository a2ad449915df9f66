// A thread that does nothing, for as long as the process lives.
#ifndef IDLE_THREAD_H
#define IDLE_THREAD_H

#include <pthread.h>
#include <unistd.h>

inline void start_idle_thread() {
    pthread_t thread;
    pthread_create(
        &thread, nullptr,
        [](void *) -> void * {
            for (;;)
                pause();
        },
        nullptr);
}

#endif
