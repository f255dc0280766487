#ifndef SIMULATOR_METHODTABLE_H
#define SIMULATOR_METHODTABLE_H

#include <vector>

#include "simulator/Bus.h"

namespace Simulator {

/// What a method is called with and answers.
struct MethodInfo {
    const char* member;
    const char* in;   // signature of the arguments
    const char* out;  // signature of the results
    /// Names of the arguments, separated by blanks, and what the method does; for help texts.
    const char* names = "";
    const char* help = "";
};

/// The methods of an interface and the functions of `Owner` that carry them out: the one place that names them.
template <typename Owner>
class MethodTable {
public:
    struct Method {
        MethodInfo info;
        void (Owner::*function)(const Call& call);
    };

    MethodTable(const char* interface, std::vector<Method> methods)
        : interface_(interface), methods_(std::move(methods)) {}

    /// Has the call carried out. False when it is for none of the methods.
    bool dispatch(Owner& owner, const Call& call) const {
        for (const auto& method : methods_) {
            if (!call.is(interface_, method.info.member, method.info.in)) continue;
            (owner.*method.function)(call);
            return true;
        }
        return false;
    }

    std::vector<MethodInfo> infos() const {
        std::vector<MethodInfo> infos;
        for (const auto& method : methods_) infos.push_back(method.info);
        return infos;
    }

private:
    const char* interface_;
    std::vector<Method> methods_;
};

}  // namespace Simulator

#endif
