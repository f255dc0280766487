#include "platform/host/InitCode.h"
#include "platform/host/Proc.h"
#include "platform/host/SysLog.h"
#include "platform/nodes/DeviceNode.h"
#include "service/Service.h"

namespace {

using Services::Bluetooth::Linux::Service;

std::uint64_t logHandle = 0;
const InitCode::Register registerLog([] { logHandle = SysLogFilter::reg(String::create("ServiceBluetoothLinux")); });

/// 0 after a run, however it ended; 1 when the service could not be created or initialised.
std::int32_t serve() {
    SysLog::procName(String::create("Bluetooth"));
    SysLog::thdName(String::create("Main"));
    Services::Nodes::requestOnTermination(String::create("bluetooth/service"), String::create("STOP"));

    Ref<Service> service = Service::create();
    if (!service) {
        LogRecord(4, logHandle) << "Could not create service";
        return 1;
    }
    if (!service->initialize()) {
        LogRecord(4, logHandle) << "Could not initialize service";
        service.reset();
        return 1;
    }
    service->run();
    service.reset();
    return 0;
}

}  // namespace

int main() {
    InitCode::entry(InitCode::kStart, &serve);
    InitCode::entry(InitCode::kEnd, nullptr);
    return Proc::exitCode();
}
