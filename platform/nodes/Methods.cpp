#include "platform/nodes/Methods.h"

#include <optional>
#include <string>

#include "platform/host/RequestContext.h"
#include "platform/nodes/InterfaceText.h"
#include "platform/nodes/Node.h"
#include "platform/nodes/Worker.h"

namespace Services::Nodes {

namespace {

/// One call that is being served.
struct Service {
    Node& node;
    const NodeService::Use& use;
    const Call& call;
    Worker& worker;

    Reply& reply() const noexcept { return worker.reply; }
    /// Announces the node to its server, which every operation expects right before it.
    Interfaces::Generic& server() const {
        use.caller().setCallerId(node.id());
        return use.server();
    }
};

Outcome invalid(const Service& of, const WrongParameter& parameter) {
    of.reply().error("org.varlink.service.InvalidParameter", "parameter", parameter.name);
    return parameter.tooDeep ? Outcome::TooDeep : Outcome::Answered;
}

Outcome busy(const Service& of) {
    of.reply().error("com.kelvo.node.Busy");
    return Outcome::Busy;
}

/// A place among the requests that are served at the same time. The node through which the process is asked to end
/// needs none.
class Place {
public:
    explicit Place(Node& node) : admission_(node.service().engine().admission()), needed_(!node.urgent()) {
        // Another thread must wait for events while this one may block. Where none can be had, this one may not.
        const bool followed = node.service().engine().ensureFollower();
        granted_ = !needed_ || (followed && admission_.beginRequest());
    }
    ~Place() {
        if (needed_ && granted_) admission_.endRequest();
    }
    Place(const Place&) = delete;
    Place& operator=(const Place&) = delete;
    bool granted() const noexcept { return granted_; }

private:
    Admission& admission_;
    const bool needed_;
    bool granted_ = false;
};

/// Runs an operation that may call the bus; its values are the reply, unless a bus call found no slot or no bus.
template <class Operation>
Outcome answerValues(const Service& of, Operation operation) {
    const Place place(of.node);
    if (!place.granted()) return busy(of);
    std::optional<RequestContext> context;
    if (!of.node.urgent()) context.emplace();
    const TArray<NodeValue> values = operation(of.server());
    if (context && context->lost()) return Outcome::Lost;
    if (context && context->busy()) return busy(of);
    of.reply().begin().add("values", values).end();
    return Outcome::Answered;
}

Outcome get(const Service& of) {
    Ref<String> attribute;
    if (const auto wrong = readTextParameter(of.worker.parameters, of.call.parameters, "attribute", attribute)) {
        return invalid(of, *wrong);
    }
    return answerValues(of, [&](Interfaces::Generic& server) { return server.getAttribute(std::move(attribute)); });
}

Outcome withValues(const Service& of, TArray<NodeValue> (Interfaces::Generic::*operation)(TArray<NodeValue>)) {
    TArray<NodeValue> values;
    if (const auto wrong = readValuesParameter(of.worker.parameters, of.call.parameters, values)) {
        return invalid(of, *wrong);
    }
    return answerValues(of, [&](Interfaces::Generic& server) { return (server.*operation)(std::move(values)); });
}

Outcome set(const Service& of) {
    return withValues(of, &Interfaces::Generic::setAttribute);
}

Outcome execute(const Service& of) {
    return withValues(of, &Interfaces::Generic::execute);
}

void describeNames(const Service& of, std::string_view list, std::uint64_t (Interfaces::Generic::*count)(),
                   Ref<String> (Interfaces::Generic::*name)(std::uint64_t)) {
    of.reply().beginList(list);
    const std::uint64_t names = (of.server().*count)();
    for (std::uint64_t index = 0; index < names; ++index) {
        if (const Ref<String> found = (of.server().*name)(index)) of.reply().item(found->view());
    }
    of.reply().endList();
}

Outcome describe(const Service& of) {
    if (const auto wrong = readNoParameters(of.worker.parameters, of.call.parameters)) return invalid(of, *wrong);
    of.node.service().engine().ensureFollower();  // a server may wait for its own locks
    of.reply().begin().add("node", of.node.name()->view()).add("server", of.node.service().name()->view());
    describeNames(of, "attributes", &Interfaces::Generic::attributeCount, &Interfaces::Generic::attributeName);
    describeNames(of, "actions", &Interfaces::Generic::actionCount, &Interfaces::Generic::actionName);
    of.reply().end();
    return Outcome::Answered;
}

Outcome watch(const Service& of) {
    if (const auto wrong = readNoParameters(of.worker.parameters, of.call.parameters)) return invalid(of, *wrong);
    if (!of.call.more) {
        of.reply().error("org.varlink.service.ExpectedMore");
        return Outcome::Answered;
    }
    of.reply().begin().end(true);
    return Outcome::Watch;
}

Outcome getInfo(const Service& of) {
    if (const auto wrong = readNoParameters(of.worker.parameters, of.call.parameters)) return invalid(of, *wrong);
    of.reply().begin().add("vendor", BTN_VENDOR).add("product", BTN_PRODUCT).add("version", BTN_VERSION);
    of.reply().add("url", BTN_URL).beginList("interfaces").item(kServiceInterface).item(kNodeInterface).endList().end();
    return Outcome::Answered;
}

Outcome getInterfaceDescription(const Service& of) {
    Ref<String> name;
    if (const auto wrong = readTextParameter(of.worker.parameters, of.call.parameters, "interface", name)) {
        return invalid(of, *wrong);
    }
    if (name->equals(kNodeInterface)) {
        of.reply().begin().add("description", kNodeInterfaceText).end();
    } else if (name->equals(kServiceInterface)) {
        of.reply().begin().add("description", kServiceInterfaceText).end();
    } else {
        of.reply().error("org.varlink.service.InterfaceNotFound", "interface", name->view());
    }
    return Outcome::Answered;
}

using Method = Outcome (*)(const Service&);

struct NamedMethod {
    std::string_view name;
    Method method;
};

constexpr NamedMethod kNodeMethods[] = {
    {"Get", get}, {"Execute", execute}, {"Describe", describe}, {"Watch", watch}, {"Set", set},
};

constexpr NamedMethod kServiceMethods[] = {
    {"GetInfo", getInfo},
    {"GetInterfaceDescription", getInterfaceDescription},
};

template <std::size_t Count>
Method find(const NamedMethod (&methods)[Count], std::string_view name) noexcept {
    for (const NamedMethod& method : methods) {
        if (method.name == name) return method.method;
    }
    return nullptr;
}

}  // namespace

Outcome serveCall(Node& node, const NodeService::Use& use, const Call& call, Worker& worker) {
    const Service of{node, use, call, worker};
    const std::size_t dot = call.method.rfind('.');
    const std::string_view interface = call.method.substr(0, dot);
    const bool ofNode = interface == kNodeInterface;
    if (dot == std::string_view::npos || (!ofNode && interface != kServiceInterface)) {
        of.reply().error("org.varlink.service.InterfaceNotFound", "interface", interface);
        return Outcome::Answered;
    }
    const std::string_view name = call.method.substr(dot + 1);
    const Method method = ofNode ? find(kNodeMethods, name) : find(kServiceMethods, name);
    if (!method) {
        of.reply().error("org.varlink.service.MethodNotFound", "method", call.method);
        return Outcome::Answered;
    }
    if (call.upgrade) {  // no method here changes to another protocol
        of.reply().error("org.varlink.service.MethodNotImplemented", "method", call.method);
        return Outcome::Answered;
    }
    return method(of);
}

std::string_view withdrawnError(Reply& reply) {
    reply.error("com.kelvo.node.Withdrawn");
    return reply.message();
}

}  // namespace Services::Nodes
