#include "inherited_thread_name.h"

#include <pthread.h>

namespace msgbus_server {

InheritedThreadName::InheritedThreadName(const char* name) noexcept {
    if (::pthread_getname_np(::pthread_self(), own.data(), own.size()) == 0) {
        ::pthread_setname_np(::pthread_self(), name);
    }
}

void InheritedThreadName::Restore() noexcept {
    if (own.front() != '\0') {
        ::pthread_setname_np(::pthread_self(), own.data());
        own.front() = '\0';
    }
}

} // namespace msgbus_server
