#pragma once

#include <boost/json/value.hpp>
#include <string>
#include <vector>

#include "btnode/Value.h"

/// JSON as the program prints it.
namespace btnode::cli {

std::string shortJson(const boost::json::value& value);
/// Two blanks for each level; an empty array or object on one line.
std::string prettyJson(const boost::json::value& value);

/// Without the name: a number, a string, null, or an array of objects with "name" and "value".
boost::json::value payloadJson(const Value& value);
boost::json::array stringsJson(const std::vector<std::string>& strings);

}  // namespace btnode::cli
