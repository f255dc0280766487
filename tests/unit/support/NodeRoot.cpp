#include "tests/unit/support/NodeRoot.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

namespace UnitTest {

namespace {

namespace fs = std::filesystem;

class Directory {
public:
    Directory() : path_((fs::temp_directory_path() / "nodes-XXXXXX").string()) {
        if (!::mkdtemp(path_.data())) {
            std::perror("mkdtemp");
            std::abort();
        }
        ::setenv("NODE_ROOT", path_.c_str(), 1);
    }
    ~Directory() {
        std::error_code ignored;
        fs::remove_all(path_, ignored);
    }
    Directory(const Directory&) = delete;
    Directory& operator=(const Directory&) = delete;

    const std::string& path() const { return path_; }

private:
    std::string path_;
};

}  // namespace

const std::string& nodeRoot() {
    static const Directory directory;
    return directory.path();
}

bool isPublished(const std::string& node) {
    std::error_code error;
    return fs::is_socket(fs::symlink_status(fs::path(nodeRoot()) / node, error));
}

std::vector<std::string> publishedNodes() {
    std::vector<std::string> names;
    std::error_code error;
    // The tree may change while it is read.
    for (fs::recursive_directory_iterator entry(fs::path(nodeRoot()) / "bluetooth", error), end; !error && entry != end;
         entry.increment(error)) {
        std::error_code gone;
        if (fs::is_socket(entry->symlink_status(gone))) {
            names.push_back(entry->path().lexically_relative(nodeRoot()).string());
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace UnitTest
