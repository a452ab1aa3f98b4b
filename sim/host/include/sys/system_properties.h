// The two sizes of bionic's property header that libcutils' properties.h
// takes its own from; a PC's C library has no such header.
#pragma once

#define PROP_NAME_MAX 32
#define PROP_VALUE_MAX 92
