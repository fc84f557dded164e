// The dashboard: one self-contained HTML page (style and script inline, nothing fetched from
// elsewhere) that reads GET "/_emulator/dashboard" about once a second and renders it, with a
// button to reset the emulator and a form to add a fault rule or clear them all.
#pragma once

#include <string>

namespace qxpemu {

const std::string& dashboardPage();

}  // namespace qxpemu
