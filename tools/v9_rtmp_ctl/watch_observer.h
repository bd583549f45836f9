// Sends the requests of watch (polls and confirmed drops) when they are due. Blocks only to connect and send.
//
//   [idle] --time for a poll--> [POLL] --listing--> [idle]
//   [idle, POLL] --begin_drop, of a connection--> [CHECK] --unchanged--> [DROP] --list, drop, list--> [idle]
//   [idle, POLL] --begin_drop, of a stream--> [DROP_STREAM] --count--> [idle]
//
// A failure leads to [idle] from every state. The results are stored in the model.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/v9_rtmp_ctl/commands.h"
#include "tools/v9_rtmp_ctl/connections.h"
#include "tools/v9_rtmp_ctl/control_client.h"
#include "tools/v9_rtmp_ctl/failure.h"
#include "tools/v9_rtmp_ctl/watch_model.h"

// Record a listing, or the failure to get one, and set the model's wall-clock time.
void take_in_answer(WatchModel& model, const Reply& reply, std::uint64_t now_us);
void take_in_failure(WatchModel& model, const Failure& failure);

class WatchObserver {
  public:
    WatchObserver(const Settings& all_settings, const WatchOptions& options);

    // Starts a poll when one is due, and gives up if the answer is late. True if the model has changed.
    bool keep_time(WatchModel& model, std::uint64_t now_us);

    // Takes the replies received; call when fd() is readable. True if the model has changed.
    bool take_replies(WatchModel& model, std::uint64_t now_us);

    // Begins to drop the model's candidate or stream. The model's notice later says what was dropped.
    void begin_drop(WatchModel& model, std::uint64_t now_us);

    // Readable when a reply may have arrived; -1 if none is expected.
    [[nodiscard]] int fd() const { return task == Task::NONE ? -1 : client.fd(); }

    // Time until keep_time has something to do; -1: never.
    [[nodiscard]] int time_left_ms(const WatchModel& model, std::uint64_t now_us) const;

  private:
    enum class Task { NONE, POLL, CHECK, DROP, DROP_STREAM };

    void begin(WatchModel& model, Task next_task, const std::vector<Request>& requests, std::uint64_t now_us);
    void finish(WatchModel& model, std::uint64_t now_us);
    void finish_check(WatchModel& model, std::uint64_t now_us);
    void finish_drop(WatchModel& model);
    void finish_drop_stream(WatchModel& model);
    void fail(WatchModel& model, const Failure& failure);

    const std::uint64_t silence_us;
    const std::uint64_t every_us;
    ControlClient client;
    Task task = Task::NONE;
    std::uint64_t next_us = 0;          // time of the next poll
    std::uint64_t silent_until_us = 0;  // deadline of the answer, extended by each byte
    std::uint64_t give_up_us = 0;
    std::size_t awaited = 0;
    std::vector<Reply> replies;
    std::optional<Connection> candidate;
    std::string stream;
};
