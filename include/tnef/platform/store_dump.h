// Readable dumps of message files and messages, shared by the tests and the command-line
// tool. One line per record: the type, the group ("g3") and the fields the codec uses, texts
// quoted with bytes outside printable ASCII as \xNN. Lines end with '\n'.
//
//   1100 g1 header flags=0x00000098 prio=0 sens=3 imp=2 autofwd=0 w16=3 w28=1 w42=0x2
//   15000 g4 recipient flags=0x1 texts="joe" "" ""
//   30500 g6 part type=1167 flags=0x0 size=12 names="BDY.TXT" "BDY.TXT" ""
//
// A record or file that does not parse ends the dump with a line "! " and the escape's
// text instead of raising, so that a dump shows how far a damaged file reads.
#pragma once

#include <cstdint>
#include <string>

#include "tnef/platform/tf_msgfile.h"

// Everything this header declares is part of the library's exported interface.
#pragma GCC visibility push(default)

std::string tf_DumpRecord(const TFREC* record);
// Every record from the first; the handle's reading position is not disturbed.
std::string tf_DumpFile(int16_t tf);
// The message's id, its parts (number and size), the records of its message file, and
// where each stored object and property text lives and whether it is there.
std::string Msg_Dump(int16_t msg);

#pragma GCC visibility pop
