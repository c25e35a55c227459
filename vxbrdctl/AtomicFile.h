// Replacing a file that another program reads at any moment (the metrics
// file a node exporter scrapes): the reader sees the old file or the new
// one, never a part of either.
#pragma once

#include <string>

namespace lumora::ctl {

// Writes text to a new file beside path, readable by all (0644), flushes it
// to disk and renames it over path. Returns "" on success, else the message
// for stderr ("PATH: reason"); a failed write leaves no file behind.
std::string writeFileAtomically(const std::string& path, const std::string& text);

}  // namespace lumora::ctl
