#pragma once

#include <string>
#include <vector>

#include "tests/unit/host/Child.h"

namespace HostTest {

/// Has descriptor 1 be a file of its own, until its lines are asked for or the scope ends. Nothing is checked
/// meanwhile: gtest reports to the same descriptor.
class Capture {
public:
    Capture();
    ~Capture() { restore(); }
    Capture(const Capture&) = delete;
    Capture& operator=(const Capture&) = delete;

    std::vector<std::string> lines();

private:
    void restore();

    Descriptor file_;
    Descriptor original_;
};

std::vector<std::string> linesOf(const std::string& text);
/// The lines without what differs from run to run, their times.
std::vector<std::string> withoutTimes(std::vector<std::string> lines);

}  // namespace HostTest
