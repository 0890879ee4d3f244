// The picture: SVG, alone or in an HTML page. Neither needs anything from outside: no script, no
// font, no network. Hovering shows what a bar or mark is and its times.
#ifndef TOOLS_LCTIMELINE_DRAWING_H
#define TOOLS_LCTIMELINE_DRAWING_H

#include <string>

#include "tools/lctimeline/timeline.h"

namespace lctimeline {

/// One picture with its own lane names. Its size is bounded: what is narrower than a pixel is drawn
/// together with its neighbours of the same sort, as high as the part of the time that they fill.
std::string svg_picture(const Timeline& timeline);

/// A page with the picture, a legend and the totals; the lanes scroll beside their names.
std::string html_page(const Timeline& timeline);

/// Text for XML: markup escaped, what XML or UTF-8 does not allow becomes U+FFFD.
std::string xml_text(const std::string& text);

}  // namespace lctimeline

#endif
