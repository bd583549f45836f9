#include "relay/time_reset.h"

#include <vector>

#include "base/diag.h"
#include "core/connection.h"
#include "core/connection_table.h"

void notify_time_reset(const StreamRecord& record) {
    diag("Notifing subscribers of time reset\n");
    for (const std::size_t player_idx : record.players) {
        RTMPConnection* const player = get_connection(player_idx);
        if (player == nullptr) {
            continue;
        }
        reset_timebase(player->timebase);
        player->av_start_ts = 0;
        const bool has_had_media = player->audio.header_delivered || player->video.header_delivered;
        if (player->stream_mode == "play" && has_had_media) {
            diag("Dropping subscriber because format change\n");
            player->close_requested = true;
        }
    }
}

void set_publisher(StreamRecord& record, std::size_t conn_idx) {
    record.publisher = conn_idx;
    notify_time_reset(record);
}
