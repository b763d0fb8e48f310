#include "FakeAgentAccess.h"

#include <dlfcn.h>

namespace {

void* symbolOfLoaded(const std::string& libraryPath, const char* name) {
    void* handle = dlopen(libraryPath.c_str(), RTLD_NOW | RTLD_NOLOAD);
    if (handle == nullptr)
        return nullptr;
    void* symbol = dlsym(handle, name);
    dlclose(handle);  // drops only the reference RTLD_NOLOAD added
    return symbol;
}

int counter(const std::string& libraryPath, const char* name) {
    void* symbol = symbolOfLoaded(libraryPath, name);
    if (symbol == nullptr)
        return -1;
    return reinterpret_cast<FakeAgentCounterFunc>(symbol)();
}

}  // namespace

FakeAgentControl* fakeAgentAt(const std::string& libraryPath) {
    void* symbol = symbolOfLoaded(libraryPath, "fakeAgentControl");
    if (symbol == nullptr)
        return nullptr;
    return reinterpret_cast<FakeAgentControlFunc>(symbol)();
}

int fakeAgentLoadCountAt(const std::string& libraryPath) {
    return counter(libraryPath, "fakeAgentLoadCount");
}

int fakeAgentCreateCountAt(const std::string& libraryPath) {
    return counter(libraryPath, "fakeAgentCreateCount");
}
