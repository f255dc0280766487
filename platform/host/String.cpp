#include "platform/host/String.h"

#include <utility>

Ref<String> String::create(std::string_view text) {
    return Ref<String>(new String(std::string(text)));
}

Ref<String> String::create(std::string&& text) {
    return Ref<String>(new String(std::move(text)));
}

Ref<String> String::substring(std::size_t begin, std::size_t count) const {
    return create(begin < text_.size() ? view().substr(begin, count) : std::string_view());
}
