#pragma once

#include <string>
#include <string_view>

#include "btnode/Limit.h"

namespace btnode::cli {

/// Standard output or standard error: collects text and writes it when asked. After a failed write nothing more is
/// written, and `failure` tells why. One thread.
class Output {
public:
    /// The descriptor stays the caller's. A terminal is written to with colour unless NO_COLOR or TERM forbid it.
    /// A raised cancellation ends a write that blocks, as a failure with EINTR; it may be null.
    explicit Output(int fd, const Cancellation* cancellation = nullptr);

    /// Appends the line and its end; nothing is written before `flush`.
    void line(std::string_view text);
    /// Appends as it is.
    void raw(std::string_view text);
    /// False once a write has failed.
    bool flush();
    /// errno of the failed write, 0 without one.
    int failure() const { return failure_; }

    bool isTerminal() const { return terminal_; }
    /// Whether the terminal can redraw lines.
    bool canRedraw() const { return terminal_ && !dumb_; }
    /// Whether lines and corners can be drawn: a terminal in a UTF-8 locale.
    bool canDraw() const { return canDraw_; }
    /// Columns and rows of the terminal at this moment; 80 by 24 where it does not tell.
    struct Size {
        std::size_t columns;
        std::size_t rows;
    };
    Size size() const;

    /// The text in bold or dimmed where colour is allowed, else as it is.
    std::string bold(std::string_view text) const { return styled("1", text); }
    std::string dim(std::string_view text) const { return styled("2", text); }

private:
    std::string styled(std::string_view code, std::string_view text) const;

    const int fd_;
    const Cancellation* const cancellation_;
    bool terminal_ = false;
    bool dumb_ = false;
    bool colour_ = false;
    bool canDraw_ = false;
    int failure_ = 0;
    std::string pending_;
};

}  // namespace btnode::cli
