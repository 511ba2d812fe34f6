// The series an acquisition collects. Its storage is not zeroed when it grows: the acquisition decodes each batch
// straight into the room behind the events kept so far and writes every element it keeps, so zeroing would only
// write the whole series to memory a second time.
#pragma once

#include "api/oltb.h"

#include <memory>
#include <utility>
#include <vector>

namespace OLVEN::TALIX3::TraceBuffer {

// std::allocator whose construct() without arguments leaves the element uninitialised (default-initialised).
template <typename T>
struct UninitializedAllocator : std::allocator<T> {
    template <typename U>
    struct rebind {
        using other = UninitializedAllocator<U>;
    };
    UninitializedAllocator() noexcept = default;
    template <typename U>
    UninitializedAllocator(const UninitializedAllocator<U>&) noexcept {}

    template <typename U>
    void construct(U* place) noexcept {
        ::new (static_cast<void*>(place)) U;
    }
    template <typename U, typename... Arguments>
    void construct(U* place, Arguments&&... arguments) {
        ::new (static_cast<void*>(place)) U(std::forward<Arguments>(arguments)...);
    }
};

using AcquiredEvents = std::vector<oltbTraceEvent, UninitializedAllocator<oltbTraceEvent>>;

}  // namespace OLVEN::TALIX3::TraceBuffer
