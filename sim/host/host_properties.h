// Host properties keep one file per key in a directory, as early Android
// stored persistent properties. The launcher uses the directory form to set
// properties of a device root from outside its sandbox.
#pragma once

#define SIM_PROPERTY_DIR "/data/property"

int sim_property_get_in(const char* dir, const char* key, char* value, const char* default_value);
int sim_property_set_in(const char* dir, const char* key, const char* value);
// Removes the key; 0 also when it was not set.
int sim_property_clear_in(const char* dir, const char* key);
