// Tagged text files: site files such as "~/sys/mapiclass.map" that list tag/value pairs.
//
// One pair per line, "TAG = value":
//   - the first '=' separates the tag from the value, so a value may hold further '=';
//   - blanks (spaces and tabs) around the tag and around the value are dropped; blanks inside
//     the value are kept;
//   - a CR just before the line's LF is dropped, so files written on other systems read the
//     same; the last line needs no LF;
//   - lines that are blank, whose first non-blank byte is '#', that hold no '=' or whose tag
//     is empty carry no pair and are skipped;
//   - lines may be of any length; tags are returned as written (callers compare them).
#pragma once

#include <cstdio>

#include "tnef/platform/dstring.h"

// Everything this header declares is part of the library's exported interface.
#pragma GCC visibility push(default)

// Reads lines from file until one holds a pair, and stores its tag and value. Returns 1
// when a pair was read, 0 at the end of the file or on a read error; tag and value are then
// empty. Further calls after the end keep returning 0.
int tfo_FindTagValue(FILE* file, dstring* tag, dstring* value);

#pragma GCC visibility pop
