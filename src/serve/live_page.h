// The page at / of a recorder that listens: charts of the recent records,
// polled from /api/v1/history, with the latest figures as text above them.
// Its HTML, CSS and script are src/serve/live_page.html, built into the
// program: the board has no internet, and the page needs nothing else.
#pragma once

#include <string_view>

namespace kestro::zqp::serve {

// The page, this program's version in its heading.
std::string_view LivePage();

}  // namespace kestro::zqp::serve
