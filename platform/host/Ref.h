#pragma once

#include <boost/smart_ptr/intrusive_ptr.hpp>

/// The handle to an Object: copying takes a reference, destroying gives it back.
template <class T>
using Ref = boost::intrusive_ptr<T>;

template <class T>
void intrusive_ptr_add_ref(const T* object) noexcept {
    object->incRef();
}

template <class T>
void intrusive_ptr_release(const T* object) noexcept {
    object->decRef();
}
