// Keeps C++ exceptions inside the library: an export that meets one answers
// with its failure value instead.
#pragma once

namespace vukra::session {

template <typename Result, typename Body>
Result guarded(Result failure, Body&& body) noexcept {
    try {
        return body();
    } catch (...) {
        return failure;
    }
}

} // namespace vukra::session
