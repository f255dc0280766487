#include <fmt/format.h>
#include <poll.h>

#include <optional>

#include "btnode/Node.h"
#include "client/cli/DeviceList.h"
#include "client/cli/LiveBlock.h"
#include "client/cli/Text.h"
#include "client/cli/Verbs.h"
#include "client/cli/Words.h"

namespace btnode::cli {

namespace json = boost::json;

namespace {

constexpr std::chrono::milliseconds kLookAgain{250};
// What a look at the devices may take; a device that does not answer is asked again with a later look.
constexpr std::chrono::seconds kLookTime{2};

class Scan {
public:
    Scan(Session& session, NodeName node)
        : session_(session),
          node_(std::move(node)),
          list_(session.tree),
          live_(!session.json() && session.out.canRedraw()),
          block_(session.out) {}

    ExitCode run() {
        Result<Node> watch = Node::connect(session_.tree, node_.full, session_.limit(kCallTime));
        if (!watch) return session_.fail(watch.error());
        if (Result<Done> begun = watch->watch(session_.limit(kCallTime)); !begun) return session_.fail(begun.error());
        const ExitCode started = start();
        if (started != ExitCode::Ok) return started;
        const ExitCode code = follow(*watch);
        if (live_) drawLast();
        const ExitCode stopped = code == ExitCode::Gone ? ExitCode::Ok : stop();
        return code == ExitCode::Ok ? stopped : code;
    }

private:
    std::string where() const {
        return node_.kind == NodeKind::Adapter ? "adapter " + node_.address : std::string("all adapters");
    }

    Result<Outcome> act(const char* action, const Limit& limit) {
        Result<Node> node = Node::connect(session_.tree, node_.full, limit);
        if (!node) return node.error();
        Result<std::vector<Value>> results = node->execute({Value::none(action)}, limit);
        if (!results) return results.error();
        if (results->empty()) return Error{ErrorKind::Gone, node_.full + " is gone"};
        return outcomeOf(results->front());
    }

    ExitCode start() {
        if (!session_.json()) session_.say("Starting an inquiry on " + where() + "; Ctrl-C ends it.");
        const Result<Outcome> outcome = act("INQUIRY_START", session_.limit(kInquiryTime));
        if (!outcome) {
            const ErrorKind kind = outcome.error().kind;
            // The request may have got through although its answer did not.
            if (kind == ErrorKind::TimedOut || kind == ErrorKind::Interrupted) stop();
            if (kind == ErrorKind::Interrupted) return ExitCode::Interrupted;
            return session_.fail(outcome.error());
        }
        if (outcome->code != ExitCode::Ok) return session_.complain(outcome->code, outcome->words);
        begin_ = Limit::Clock::now();
        if (session_.json()) session_.emit({{"event", "scanning"}, {"node", node_.full}});
        return ExitCode::Ok;
    }

    ExitCode follow(Node& watch) {
        const Limit::Clock::time_point end =
            session_.asked.span ? begin_ + *session_.asked.span : Limit::Clock::time_point::max();
        for (;;) {
            const auto touched = list_.look(Limit::in(kLookTime, session_.cancellation));
            if (!show(touched)) return ExitCode::Failure;
            if (Limit::Clock::now() >= end) return ExitCode::Ok;
            const Limit tick{std::min(Limit::Clock::now() + kLookAgain, end), session_.cancellation};
            const Ready how = waitFor(watch.fd(), POLLIN, tick);
            if (how == Ready::Interrupted) return ExitCode::Interrupted;
            if (how == Ready::Yes) {
                // A change of the adapter itself tells nothing here; its end does.
                Result<std::int64_t> change = watch.nextChange(Limit::in(kCallTime, session_.cancellation));
                if (!change && change.error().kind == ErrorKind::Interrupted) return ExitCode::Interrupted;
                if (!change) return session_.complain(ExitCode::Gone, node_.full + " was withdrawn during the inquiry");
            }
        }
    }

    ExitCode stop() {
        // Whatever ended the scan, its end is not interrupted; a second Ctrl-C ends the process.
        const Result<Outcome> outcome = act("INQUIRY_STOP", Limit::in(kCleanUpTime));
        if (!outcome) {
            session_.say("btnode: the inquiry could not be stopped");
            return session_.fail(outcome.error());
        }
        if (outcome->code != ExitCode::Ok) return session_.complain(outcome->code, outcome->words);
        if (session_.json()) {
            session_.emit({{"event", "stopped"}, {"devices", list_.present()}});
        } else {
            session_.say(fmt::format("Inquiry stopped; {} device{} there.", list_.present(),
                                     list_.present() == 1 ? " is" : "s are"));
        }
        return ExitCode::Ok;
    }

    bool show(const std::vector<std::size_t>& touched) {
        if (live_) return draw(touched);
        for (const std::size_t at : touched) {
            const DeviceList::Device& device = list_.devices()[at];
            if (!(session_.json() ? emit(device) : print(device))) return false;
        }
        return true;
    }

    bool emit(const DeviceList::Device& device) {
        json::object object{
            {"event", eventWord(device.event)}, {"node", device.node.full}, {"address", device.node.address}};
        device.words.addTo(object);
        return session_.emit(object);
    }

    bool print(const DeviceList::Device& device) {
        return session_.print(fmt::format("{:<7}  {}  {:<10}  {:<24}  {}", eventWord(device.event), device.node.address,
                                          device.words.status, device.words.deviceClass, device.words.name));
    }

    bool draw(const std::vector<std::size_t>& touched) {
        const auto now = elapsed();
        if (touched.empty() && drawnAt_ == now) return true;
        drawnAt_ = now;
        const auto [columns, rows] = session_.out.size();
        std::vector<std::string> lines = deviceLines(columns - 1);
        // The newest stay in sight: the title, a line for those left out, and the cursor's line are kept free.
        const std::size_t room = rows > 4 ? rows - 3 : 1;
        if (lines.size() > room) {
            const std::size_t hidden = lines.size() - room;
            lines.erase(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(hidden));
            lines.insert(lines.begin(), fmt::format("   ({} more above)", hidden));
        }
        lines.insert(lines.begin(), clipped(title("Scanning"), columns - 1));
        return block_.draw(lines);
    }

    /// The whole list once more, to stay on the terminal; it also covers the ^C that the terminal wrote.
    void drawLast() {
        const std::size_t columns = session_.out.size().columns;
        std::vector<std::string> lines = deviceLines(columns - 1);
        lines.insert(lines.begin(), clipped(title("Scanned"), columns - 1));
        block_.draw(lines);
    }

    std::chrono::seconds elapsed() const {
        return std::chrono::floor<std::chrono::seconds>(Limit::Clock::now() - begin_);
    }

    std::string title(const char* doing) const {
        return fmt::format("{} on {}: {} s, {} device{}", doing, where(), elapsed().count(), list_.present(),
                           list_.present() == 1 ? "" : "s");
    }

    /// New devices are marked with +, those that are gone with -.
    std::vector<std::string> deviceLines(std::size_t width) const {
        Table table;
        for (const DeviceList::Device& each : list_.devices()) {
            const bool gone = each.event == DeviceList::Event::Gone;
            table.row({gone         ? "-"
                       : each.isNew ? "+"
                                    : " ",
                       each.node.address, gone ? "gone" : sanitised(each.words.status),
                       sanitised(each.words.deviceClass), sanitised(each.words.name)});
        }
        std::vector<std::string> lines = table.lines();
        for (std::size_t at = 0; at < lines.size(); ++at) {
            const DeviceList::Device& device = list_.devices()[at];
            lines[at] = clipped(lines[at], width);
            if (device.event == DeviceList::Event::Gone) {
                lines[at] = session_.out.dim(lines[at]);
            } else if (device.isNew) {
                lines[at] = session_.out.bold(lines[at]);
            }
        }
        return lines;
    }

    Session& session_;
    const NodeName node_;
    DeviceList list_;
    const bool live_;
    LiveBlock block_;
    Limit::Clock::time_point begin_;
    std::optional<std::chrono::seconds> drawnAt_;
};

}  // namespace

ExitCode scanVerb(Session& session) {
    if (session.asked.node.empty() || session.asked.node == "master" || session.asked.node == kMasterNode) {
        return Scan(session, NodeName::parse(std::string(kMasterNode))).run();
    }
    Result<NodeName> node = session.find(Wanted::Adapter, session.limit(kCallTime));
    if (!node) return session.fail(node.error());
    return Scan(session, std::move(*node)).run();
}

}  // namespace btnode::cli
