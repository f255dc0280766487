#include "tests/unit/support/RunningService.h"

#include "platform/nodes/DeviceNode.h"
#include "tests/unit/support/NodeRoot.h"

namespace UnitTest {

using Services::Bluetooth::Linux::Service;

RunningService::RunningService() : ended_(end_.get_future()) {
    nodeRoot();
    // As the program does: that node answers its requests whatever ends meanwhile.
    Services::Nodes::requestOnTermination(String::create("bluetooth/service"), String::create("STOP"));
    std::promise<Start> started;
    std::future<Start> start = started.get_future();
    thread_ = std::thread([this, started = std::move(started)]() mutable { live(std::move(started)); });
    start_ = start.get();
}

RunningService::~RunningService() {
    stop();
}

void RunningService::live(std::promise<Start> started) {
    {
        const Ref<Service> service = Service::create();
        if (!service) {
            started.set_value(Start::NotCreated);
        } else if (!service->initialize()) {
            started.set_value(Start::NotInitialised);
        } else {
            service_ = service.get();
            started.set_value(Start::Running);
            service->run();
            const std::lock_guard guard(lock_);
            service_ = nullptr;
        }
    }
    end_.set_value();
}

void RunningService::requestStop() {
    // Under the lock the service is not released: a client's STOP keeps it in the same way until it is answered.
    const std::lock_guard guard(lock_);
    if (service_) service_->requestStop();
}

void RunningService::stop() {
    if (!thread_.joinable()) return;
    requestStop();
    thread_.join();
}

bool RunningService::waitForEnd(std::chrono::milliseconds limit) const {
    return ended_.wait_for(limit) == std::future_status::ready;
}

}  // namespace UnitTest
