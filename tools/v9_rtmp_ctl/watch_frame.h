// One frame of watch as lines of text, for a screen of a given size. Pure.
#pragma once

#include <string>
#include <vector>

#include "tools/v9_rtmp_ctl/output.h"
#include "tools/v9_rtmp_ctl/watch_model.h"

enum class LineStyle { PLAIN, HEADING, TITLES, SELECTED, ALERT, FOOT };

struct FrameLine {
    std::string text;  // bytes 0x20 to 0x7E only
    LineStyle style = LineStyle::PLAIN;
};

// At most size.rows lines of at most size.columns. The last rows of the screen are the foot: the keys, a
// question, or the result of the last drop. If both tables are shown, streams get up to half of the room, or
// more if connections leave it free, and connections get the rest. If rows are omitted, a line says how many
// more follow.
[[nodiscard]] std::vector<FrameLine> render_frame(const WatchModel& model, const ScreenSize& size);

// Scrolls the tables for render_frame at this size: selected rows are on the screen, and the last page
// is full.
void settle(WatchModel& model, const ScreenSize& size);

// For output that is not a terminal: all rows, uncut, and without the foot.
[[nodiscard]] std::vector<FrameLine> render_endless_frame(const WatchModel& model);

// Returns the bytes that paint the frame over the current screen.
[[nodiscard]] std::string paint_frame(const std::vector<FrameLine>& lines, bool color);
