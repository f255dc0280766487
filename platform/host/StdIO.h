#pragma once

#include <string_view>

/// The standard output, unbuffered.
class StdIO {
public:
    class Writer {
    public:
        /// Writes all of the text, as it is; gives up silently on an error, and on a reader that takes nothing for half
        /// a second. Allocates nothing. Any thread.
        void write(std::string_view text) noexcept;
    };
    static Writer& stdOutWriter() noexcept;
};
