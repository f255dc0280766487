#pragma once

#include <string>
#include <vector>

#include "btnode/Error.h"
#include "btnode/Value.h"

namespace btnode::cli {

/// Reads "ACTION [PARAM...] [+ ACTION [PARAM...]]..." into the actions of a request.
///
///     PARAM := [NAME=]VALUE          NAME: letters, digits, _ - . with a letter or _ first
///     VALUE := [ITEM, ITEM...]       a list; ITEM is a PARAM
///            | "TEXT"                a string with the escapes of JSON
///            | i:NUMBER | s:TEXT     an integer, a string
///            | none                  nothing
///            | NUMBER                decimal or 0x and hexadecimal, without leading zeros
///            | TEXT                  a string; inside a list it ends at , or ] and loses blanks around it
///
/// One PARAM without a name is the action's own value; any others are the entries of its list. The error is of kind
/// Invalid.
Result<std::vector<Value>> parseActions(const std::vector<std::string>& words);

}  // namespace btnode::cli
