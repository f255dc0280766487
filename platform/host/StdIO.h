#pragma once

#include <string_view>

/// The standard output, unbuffered.
class StdIO {
public:
    class Writer {
    public:
        /// Writes all of the text; gives up silently on an error. Allocates nothing.
        void write(std::string_view text) noexcept;
    };
    static Writer& stdOutWriter() noexcept;
};
