#include "platform/dbus/Filters.h"

namespace Libraries::Platform::Posix::DBus {

Filters::~Filters() {
    free(list_);
}

void Filters::free(const List& removed) {
    for (const Filter& filter : removed) {
        if (filter.freeUserData) filter.freeUserData(filter.userData);
    }
}

void Filters::add(DBusHandleMessageFunction function, void* userData, DBusFreeFunction freeUserData) {
    const MutexLock lock(mutex_);
    list_.push_back({function, userData, freeUserData, nextNumber_++});
    index_[{function, userData}].push_back(std::prev(list_.end()));
}

void Filters::remove(DBusHandleMessageFunction function, void* userData) {
    List removed;
    {
        MutexLock lock(mutex_);
        const auto entry = index_.find({function, userData});
        if (entry == index_.end()) return;
        const List::iterator filter = entry->second.back();
        entry->second.pop_back();
        if (entry->second.empty()) index_.erase(entry);

        filter->removed = true;
        if (filter->running > 0) {
            if (dispatcher_ == std::this_thread::get_id()) return;  // run() takes it off the list
            filter->awaited = true;
            while (filter->running > 0) idle_.wait(lock.native());
        }
        removed.splice(removed.end(), list_, filter);
    }
    free(removed);
}

DBusHandlerResult Filters::run(DBusConnection* connection, DBusMessage* message) {
    DBusHandlerResult result = DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    List removed;
    {
        MutexLock lock(mutex_);
        dispatcher_ = std::this_thread::get_id();
        const std::uint64_t end = nextNumber_;
        // The filter that runs stays on the list, so its successor is looked up when it has returned.
        for (auto next = list_.begin(); next != list_.end() && next->number < end;) {
            const List::iterator filter = next;
            if (!filter->removed) {
                ++filter->running;
                lock.unlock();
                result = filter->function(connection, message, filter->userData);
                lock.lock();
                --filter->running;
            }
            ++next;
            if (filter->removed && filter->running == 0) {
                if (filter->awaited) {
                    idle_.notify_all();
                } else {
                    removed.splice(removed.end(), list_, filter);
                }
            }
            if (result != DBUS_HANDLER_RESULT_NOT_YET_HANDLED) break;
        }
    }
    free(removed);
    return result;
}

}  // namespace Libraries::Platform::Posix::DBus
