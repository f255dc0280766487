#ifndef SIMULATOR_VALUETEXT_H
#define SIMULATOR_VALUETEXT_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "simulator/Value.h"

namespace Simulator {

/// The notation in which people write D-Bus values on the command line and in which calls are narrated:
///
///     text        "keyboard" or, where nothing needs quoting, keyboard     (escapes: \" \\ \n \r \t \xHH)
///     numbers     17, -3, 0x540, 1.5            booleans    true, false
///     array       [1, 2]                        dictionary  {Alias: s:Desk, Paired: b:true}
///     structure   (1, 2)                        variant     its type, a colon, its value: u:17, as:[a, b]
///
/// A text that stands alone, as a whole argument, needs no quotes whatever it holds.
///
/// Reads one value of the given type from the whole text. None, with `error` telling why and where, when the text is
/// not one; nesting is limited to what D-Bus allows.
std::optional<Value> parseValue(const std::string& signature, std::string_view text, std::string& error);

/// The single complete types that the signature is made of; empty for one that is malformed.
std::vector<std::string> completeTypes(std::string_view signature);

/// The value in that notation, texts always quoted. Control characters are escaped, so that the result is one line.
std::string toText(const Value& value);
/// The values with commas between them.
std::string toText(const Value::List& values);

}  // namespace Simulator

#endif
