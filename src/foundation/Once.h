// Shared instances created once, thread-safely, on first use.
#pragma once

namespace brindle {

// Returns the one instance of T, constructed on first call (function-local
// static: thread-safe initialisation). The instance lives until exit.
template <class T>
T& sharedInstance()
{
    static T* instance = new T();
    return *instance;
}

}  // namespace brindle
