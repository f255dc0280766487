#include "platform/nodes/Service.h"

#include <utility>

#include "platform/nodes/NodeService.h"

namespace Services::Nodes::Resolvers {

Generic::Generic(Ref<Interfaces::Generic> server, Ref<CallerID> caller, Ref<Resolver> resolver)
    : server_(std::move(server)), caller_(std::move(caller)), resolver_(std::move(resolver)) {}

Ref<Generic> Generic::create(Ref<Interfaces::Generic> server, Ref<CallerID> caller, Ref<Resolver> resolver) {
    return Ref<Generic>(new Generic(std::move(server), std::move(caller), std::move(resolver)));
}

}  // namespace Services::Nodes::Resolvers

namespace Libraries::Service {

Ref<Base> Single::create(Ref<Interfaces::Service> service, Ref<ConMan> conMan, Ref<String> name) {
    return Services::Nodes::NodeService::start(std::move(service), std::move(conMan), name);
}

void Single::clearLeftovers(const Ref<String>& name) {
    Services::Nodes::Tree::clear(viewOf(name));
}

}  // namespace Libraries::Service
