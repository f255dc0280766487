#pragma once

#include <condition_variable>
#include <cstdint>
#include <list>
#include <thread>
#include <unordered_map>
#include <vector>

#include "platform/dbus/DBus.h"
#include "platform/host/Mutex.h"

namespace Libraries::Platform::Posix::DBus {

/// The filters of a connection. They run on the dispatch thread, in the order they were added and without a lock held;
/// they are added and removed on any thread meanwhile, also by one another. Adding and removing take the same time
/// however many there are, and nothing is copied per message.
class Filters {
public:
    Filters() = default;
    /// Frees the user data of those that are left.
    ~Filters();
    Filters(const Filters&) = delete;
    Filters& operator=(const Filters&) = delete;

    /// A filter added while a message is dispatched sees the next one first.
    void add(DBusHandleMessageFunction function, void* userData, DBusFreeFunction freeUserData);
    /// Removes the last added filter with this function and data; no effect when there is none. Waits until it is not
    /// running, unless this is the dispatch thread: then it is the caller itself that runs it, or it does not run.
    void remove(DBusHandleMessageFunction function, void* userData);
    /// Offers a message to the filters until one does not answer NOT_YET_HANDLED; returns its answer. Dispatch thread.
    DBusHandlerResult run(DBusConnection* connection, DBusMessage* message);

private:
    struct Filter {
        DBusHandleMessageFunction function;
        void* userData;
        DBusFreeFunction freeUserData;
        std::uint64_t number;  // ascending in the order of addition
        unsigned running = 0;  // calls in progress
        bool removed = false;
        bool awaited = false;  // whoever removed it waits and takes it off the list; else run() does
    };
    using List = std::list<Filter>;

    struct Key {
        DBusHandleMessageFunction function;
        void* userData;
        bool operator==(const Key&) const = default;
    };
    struct Hash {
        std::size_t operator()(const Key& key) const noexcept {
            return std::hash<void*>()(key.userData) ^ (std::hash<DBusHandleMessageFunction>()(key.function) << 1);
        }
    };

    static void free(const List& removed);

    Mutex mutex_;
    std::condition_variable idle_;  // an awaited filter has stopped running
    List list_ GUARDED_BY(mutex_);
    std::unordered_map<Key, std::vector<List::iterator>, Hash> index_ GUARDED_BY(mutex_);  // last added at the back
    std::uint64_t nextNumber_ GUARDED_BY(mutex_) = 0;
    std::thread::id dispatcher_ GUARDED_BY(mutex_);  // the thread that was in run() last
};

}  // namespace Libraries::Platform::Posix::DBus
