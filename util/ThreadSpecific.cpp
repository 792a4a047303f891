#include "util/ThreadSpecific.h"

#include "util/ThreadException.h"

TSP_Implementor::TSP_Implementor(void (*destructor)(void*)) {
  ThreadException::check(pthread_key_create(&_key, destructor), "pthread_key_create");
}

void TSP_Implementor::set(void* value) {
  ThreadException::check(pthread_setspecific(_key, value), "pthread_setspecific");
}

void TSP_Implementor::release() {
  ThreadException::check(pthread_key_delete(_key), "pthread_key_delete");
}
