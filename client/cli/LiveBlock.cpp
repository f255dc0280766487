#include "client/cli/LiveBlock.h"

namespace btnode::cli {

bool LiveBlock::draw(const std::vector<std::string>& lines) {
    // Each line is overwritten and only its rest erased: erasing first would flicker.
    out_.raw("\r");
    if (drawn_ > 0) out_.raw("\x1b[" + std::to_string(drawn_) + "A");
    for (const std::string& each : lines) out_.line(each + "\x1b[K");
    out_.raw("\x1b[J");
    drawn_ = lines.size();
    return out_.flush();
}

}  // namespace btnode::cli
