#ifndef SIMULATOR_NARRATOR_H
#define SIMULATOR_NARRATOR_H

#include <string>

namespace Simulator {

/// Tells on standard error what happens, a line each.
class Narrator {
public:
    enum class Detail { Nothing, Events, Everything };

    explicit Narrator(Detail detail) : detail_(detail) {}

    /// Something that a person would call an event: a call that does something, a device found, a pincode typed.
    void event(const std::string& text) const;
    /// A call that only reads.
    void read(const std::string& text) const;
    bool isListening() const { return detail_ != Detail::Nothing; }

private:
    Detail detail_;
};

}  // namespace Simulator

#endif
