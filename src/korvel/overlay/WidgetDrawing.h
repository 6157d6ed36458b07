// Small drawing helpers the overlay's pages share: the library's widget
// states (platform/Widgets.h) as ImGui widgets, symbol names as glyphs, and
// the rectangles of the buttons drawn this frame (share sheets are anchored
// at theirs).
#pragma once

#include <korvel/export.h>

#include <map>
#include <string>
#include <string_view>

#include <korvel/ui/ViewNode.h>
#include <korvel/ui/Widgets.h>

namespace korvel::overlay {

// A glyph of DejaVu Sans for a symbol name ("play.fill", "envelope", ...);
// empty for names without one.
KORVEL_EXPORT std::string_view glyphForSymbol(std::string_view systemName);

// The text a button shows: its symbol's glyph (when it has one) and its
// title.
KORVEL_EXPORT std::string buttonLabel(const ui::Button& button);

// Where each button was drawn in the last frame.
using ButtonFrames = std::map<const ui::Button*, ui::Rect>;

// Draws button (nothing when hidden; greyed out when disabled) and forwards
// a click to userTap(). Records its rectangle in frames when given.
KORVEL_EXPORT void drawButton(ui::Button& button, ButtonFrames* frames = nullptr);

// A switch drawn as a pill with a knob; a click calls userToggle().
KORVEL_EXPORT void drawSwitch(const char* id, ui::Switch& sw);
// How wide drawSwitch() draws, in the current style.
KORVEL_EXPORT float switchWidth();

// A turning activity indicator of the current font's height.
KORVEL_EXPORT void drawSpinner();

}  // namespace korvel::overlay
