// One frame of watch as lines of text, made for a screen of a given size. Pure.
#pragma once

#include <string>
#include <vector>

#include "tools/v9_rtmp_ctl/output.h"
#include "tools/v9_rtmp_ctl/watch_model.h"

enum class LineStyle { PLAIN, HEADING, TITLES, ALERT, FOOT };

struct FrameLine {
    std::string text;  // bytes 0x20 to 0x7E only
    LineStyle style = LineStyle::PLAIN;
};

// At most size.rows lines of at most size.columns. The last row of the screen is the foot: the keys, a
// question, or what came of the last drop. Streams get up to half of the room, connections the rest; where
// some are left out, a line says how many.
[[nodiscard]] std::vector<FrameLine> render_frame(const WatchModel& model, const ScreenSize& size);

// The scroll at which the last connection stands in the last row; more scrolls no further.
[[nodiscard]] std::size_t last_scroll(const WatchModel& model, const ScreenSize& size);

// For an output that is no terminal: everything, without foot, and nothing cut.
[[nodiscard]] std::vector<FrameLine> render_endless_frame(const WatchModel& model);

// The bytes that paint the frame over whatever the screen shows.
[[nodiscard]] std::string paint_frame(const std::vector<FrameLine>& lines, bool color);
