// "vtr-host watch": the batch threads' progress lines from the framework
// pipe, drawn as progress bars in a terminal.
#pragma once

#include <string>
#include <string_view>

namespace host {

struct progress_event {
    std::string event;     // "copy_from_list", "move_from_list", "delete_from_list"
    std::string filename;
    std::string from;
    std::string to;
    int item = 0;
    int total = 0;
    int percent = 0;
    int whole = 0;         // 101 marks the end of a batch
    int time_left = 0;
    int status = 0;
    bool has_percent = false;  // the delete line carries no percent
};

// Takes a line "swf=<event>...</event>..." apart; false for anything else.
bool parse_progress_line(std::string_view line, progress_event &out);

// One line of text for the event: entry, storages, the entry's bar, the
// batch's bar and the time left (bars width characters wide).
std::string render_progress(const progress_event &e, int width);

// vtr-host watch [--pipe PATH] [--until-end] [--raw]; args[0] is "watch".
int run_watch(int argc, char **argv);

}  // namespace host
