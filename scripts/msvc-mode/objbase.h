#pragma once

// What Wine's lacks of the Windows SDK's.

#include_next <objbase.h>

template <class T>
void** IID_PPV_ARGS_Helper(T** pointer) {
    static_cast<void>(static_cast<IUnknown*>(*pointer)); // as the SDK's: only for COM interfaces
    return reinterpret_cast<void**>(pointer);
}

#define IID_PPV_ARGS(pointer) __uuidof(**(pointer)), IID_PPV_ARGS_Helper(pointer)
