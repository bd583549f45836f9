#include "tools/v9_rtmp_ctl/watch_observer.h"

#include <comm_socket_v4.h>

#include <algorithm>
#include <array>
#include <ctime>
#include <utility>

#include "tools/v9_rtmp_ctl/drop_batch.h"
#include "tools/v9_rtmp_ctl/drop_rules.h"
#include "tools/v9_rtmp_ctl/text.h"

namespace {

// Keys are not read while connecting or sending a request.
constexpr std::uint64_t MAX_DEAF_US = 1000000;

std::string time_of_day() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    std::array<char, 16> text{};
    if (localtime_r(&now, &local) == nullptr ||
        std::strftime(text.data(), text.size(), "%H:%M:%S", &local) == 0) {
        return "--:--:--";
    }
    return text.data();
}

}  // namespace

void take_in_answer(WatchModel& model, const Reply& reply, std::uint64_t now_us) {
    Listing listing;
    listing.taken_us = now_us;
    model.clock = time_of_day();
    if (const std::optional<Failure> failure = read_listing(reply, listing)) {
        take_in(model, *failure);
    } else {
        take_in(model, std::move(listing));
    }
}

void take_in_failure(WatchModel& model, const Failure& failure) {
    model.clock = time_of_day();
    take_in(model, failure);
}

WatchObserver::WatchObserver(const Settings& all_settings, const WatchOptions& options)
    : silence_us(all_settings.timeout_us()),
      every_us(static_cast<std::uint64_t>(options.interval_seconds * 1e6)),
      client(all_settings.socket_path, std::min(silence_us, MAX_DEAF_US)) {}

void WatchObserver::begin(WatchModel& model, Task next_task, const std::vector<Request>& requests,
                          std::uint64_t now_us) {
    task = next_task;
    replies.clear();
    awaited = requests.size();
    silent_until_us = now_us + silence_us;
    give_up_us = now_us + longest_reply_us(silence_us);
    if (const std::optional<Failure> failure = client.start(requests)) {
        fail(model, *failure);
    }
}

void WatchObserver::fail(WatchModel& model, const Failure& failure) {
    client.disconnect();
    if (task == Task::POLL) {
        take_in_failure(model, failure);
    } else if (task != Task::CHECK && failure.exit_code == ExitCode::NO_REPLY) {
        // First, since the end of a long notice is cut.
        model.notice = "The drop may have been carried out: " + failure.message;
    } else {
        model.notice = failure.message;
    }
    task = Task::NONE;
}

bool WatchObserver::keep_time(WatchModel& model, std::uint64_t now_us) {
    if (task != Task::NONE && now_us >= std::min(silent_until_us, give_up_us)) {
        fail(model, give_up_us < silent_until_us ? answer_too_long(longest_reply_us(silence_us))
                                                 : no_answer(silence_us));
        return true;
    }
    if (task != Task::NONE || model.paused || now_us < next_us) {
        return false;
    }
    next_us = now_us + every_us;
    begin(model, Task::POLL, {list_request("")}, now_us);
    return task == Task::NONE;
}

bool WatchObserver::take_replies(WatchModel& model, std::uint64_t now_us) {
    silent_until_us = now_us + silence_us;
    while (replies.size() < awaited) {
        Reply reply;
        bool found = false;
        if (const std::optional<Failure> failure = client.poll_reply(reply, found)) {
            fail(model, *failure);
            return true;
        }
        if (!found) {
            return false;
        }
        replies.push_back(std::move(reply));
    }
    finish(model, now_us);
    return true;
}

void WatchObserver::begin_drop(WatchModel& model, std::uint64_t now_us) {
    if (task != Task::NONE && task != Task::POLL) {
        model.notice = "The previous drop has not been answered yet. Try again in a moment.";
    } else {
        client.disconnect();  // abandons the current poll; another follows the drop at once
        candidate = model.drop_candidate;
        stream = model.drop_stream.value_or("");
        if (candidate) {
            begin(model, Task::CHECK, {list_request("")}, now_us);
        } else {
            begin(model, Task::DROP_STREAM, {{"drop connection by stream name", {stream}}}, now_us);
        }
    }
    model.drop_candidate.reset();
    model.drop_stream.reset();
}

void WatchObserver::finish(WatchModel& model, std::uint64_t now_us) {
    const Task finished = task;
    task = Task::NONE;
    switch (finished) {
        case Task::POLL:
            take_in_answer(model, replies.front(), now_us);
            break;
        case Task::CHECK:
            finish_check(model, now_us);
            break;
        case Task::DROP:
            finish_drop(model);
            next_us = 0;
            break;
        case Task::DROP_STREAM:
            finish_drop_stream(model);
            next_us = 0;
            break;
        case Task::NONE:
            break;
    }
    replies.clear();
}

// A client that took the slot, or changed its stream or mode, after the user was asked is not the
// intended one.
void WatchObserver::finish_check(WatchModel& model, std::uint64_t now_us) {
    Listing listing;
    std::optional<Failure> failure = read_listing(replies.front(), listing);
    if (!failure) {
        failure = judge_candidate(*candidate, listing.connections);
    }
    if (failure) {
        model.notice = failure->message;
        next_us = 0;
        return;
    }
    begin(model, Task::DROP, batch_requests({target_of(*candidate)}, std::nullopt), now_us);
}

void WatchObserver::finish_drop(WatchModel& model) {
    std::vector<DropOutcome> outcomes;
    std::optional<Listing> before;
    std::optional<Failure> failure = judge_batch({target_of(*candidate)}, replies, before, outcomes);
    if (!failure) {
        failure = outcomes.front().failure;
    }
    model.notice = failure ? failure->message : "Dropped connection " + std::to_string(candidate->id) + ".";
}

void WatchObserver::finish_drop_stream(WatchModel& model) {
    const std::string name = escape_untrusted(stream);
    const Reply& reply = replies.front();
    const std::optional<unsigned> count = dropped_count(reply.message);
    if (reply.status != COMM_SOCKET_V4_STATUS_SUCCESS) {
        model.notice = refused_by_server(reply.message).message;
    } else if (!count) {
        model.notice = unreadable_reply("'" + reply.message + "' is an unexpected reply to a drop").message;
    } else {
        model.notice = "Dropped " + std::to_string(*count) + (*count == 1 ? " connection" : " connections") +
                       " of stream '" + name + "'.";
    }
}

int WatchObserver::time_left_ms(const WatchModel& model, std::uint64_t now_us) const {
    if (task == Task::NONE && model.paused) {
        return -1;
    }
    const std::uint64_t due_us = task == Task::NONE ? next_us : std::min(silent_until_us, give_up_us);
    return due_us > now_us ? static_cast<int>((due_us - now_us + 999) / 1000) : 0;
}
