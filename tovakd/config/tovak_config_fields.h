// The elements of dm.cfg, one table row each: what the element is called,
// how its value is read into the record and written back, and where it
// stands in the written file.
#pragma once

#include <string>
#include <vector>

#include "config/tovak_config.h"

// Sets every field from the kept lines of a file; the modem-range fields
// stay.
void tovak_config_fields_read(tovak_config& c, const std::vector<std::string>& lines);
// The record as dm.cfg, in the file's own layout.
std::string tovak_config_fields_text(const tovak_config& c);
