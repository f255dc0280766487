#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "platform/nodes/Fd.h"

namespace NodesTest {

/// A run of unit-nodes-child with NODE_ROOT as it is set.
class Child {
public:
    explicit Child(const std::vector<std::string>& arguments);
    /// Kills what still runs.
    ~Child();
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    /// The next line of its standard output that is no log record; nothing at the end or when none comes.
    std::optional<std::string> line();
    /// The log records that came before the lines read so far.
    const std::vector<std::string>& records() const { return records_; }
    void write(std::string_view bytes) const;
    void signal(int number) const;
    pid_t process() const { return process_; }
    /// Ends its standard input and waits; its exit code, 128 and more for a signal, -1 when it does not end.
    int end();
    /// Waits for it to end.
    int wait();

private:
    pid_t process_ = -1;
    Services::Nodes::Fd input_;
    Services::Nodes::Fd output_;
    std::string buffer_;
    std::vector<std::string> records_;
};

}  // namespace NodesTest
