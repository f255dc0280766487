#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace HostTest {

/// Closes its descriptor at the end of the scope.
class Descriptor {
public:
    explicit Descriptor(int number = -1) : number_(number) {}
    ~Descriptor() { close(); }
    Descriptor(Descriptor&& other) noexcept : number_(other.release()) {}
    Descriptor& operator=(Descriptor&& other) noexcept;
    int get() const { return number_; }
    int release();
    void close();

private:
    int number_;
};

struct Pipe {
    Pipe();
    Descriptor read;
    Descriptor write;
};

/// Reads a descriptor, which it does not own, with a limit of 20 seconds for each piece.
class Reader {
public:
    explicit Reader(int descriptor) : descriptor_(descriptor) {}
    /// The next line without its line break; nothing at the end, or when nothing more comes.
    std::optional<std::string> line();
    /// All up to the end; with a remark behind it when the end does not come.
    std::string rest();

private:
    enum class More { Bytes, End, Nothing };
    More readMore();

    int descriptor_;
    std::string buffer_;
};

/// A run of unit-host-child. Its standard error is a pipe; standard input and output are unless told otherwise.
class Child {
public:
    static constexpr int kPipe = -1;

    struct Setup {
        std::vector<std::string> arguments;
        std::vector<std::string> environment = {};  ///< besides the test's own, "NAME=value"
        int output = kPipe;
        bool closeAll = false;  ///< all three standard descriptors are closed
        std::vector<int> ignoredSignals = {};
    };

    explicit Child(const Setup& setup);
    /// Kills what still runs.
    ~Child();
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    Reader& output() { return outputReader_; }
    Reader& error() { return errorReader_; }
    /// Ends the child's standard input, which the modes take for "go on".
    void goOn() { input_.close(); }
    void signal(int number) const;
    /// The exit code, 128 and more for a signal; -1 when the child does not end within 20 seconds.
    int wait();

private:
    pid_t process_ = -1;
    Descriptor input_;
    Descriptor output_;
    Descriptor error_;
    Reader outputReader_{-1};
    Reader errorReader_{-1};
};

}  // namespace HostTest
