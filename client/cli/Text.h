#pragma once

#include <string>
#include <string_view>
#include <vector>

/// Text for people, made of texts that strangers chose.
namespace btnode::cli {

/// Replaces what could steer a terminal or break a line by an escape: control characters as \x1b, line separators and
/// characters that turn the writing direction as \u{202e}; bytes that are no UTF-8 become the replacement character.
std::string sanitised(std::string_view text);

/// Valid UTF-8, with the replacement character for what is not; control characters stay.
std::string asUtf8(std::string_view text);

/// Columns on a terminal; for sanitised text.
std::size_t displayWidth(std::string_view text);
/// Cut to that many columns, the last of them an ellipsis when something is missing.
std::string clipped(std::string_view text, std::size_t width);

/// Columns side by side, each as wide as its widest cell, two blanks between them; no blanks at the end of a line.
class Table {
public:
    void row(std::vector<std::string> cells) { rows_.push_back(std::move(cells)); }
    bool empty() const { return rows_.empty(); }
    std::vector<std::string> lines() const;

private:
    std::vector<std::vector<std::string>> rows_;
};

std::string joined(const std::vector<std::string>& parts, std::string_view separator);

}  // namespace btnode::cli
