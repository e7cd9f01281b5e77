// Addresses: the server's address text is "local@node" (an O/R name); a local address may
// also be written as "local" alone. Mail nodes are compared without regard to case.
//
// None of these raises an escape for odd input: an address they cannot make sense of is
// left as it is.
#pragma once

#include <string>

// Everything this header declares is part of the library's exported interface.
#pragma GCC visibility push(default)

// An address split into its local part and its mail node (empty when it names none).
struct NmORName {
    std::string local;
    std::string node;
};

// Splits address at its last '@' (one inside double quotes does not count) and trims blanks
// from both parts. *status (may be null) receives the result too: 0 when a local part was
// found, 1 when there is none (an empty or blank address, or one that begins with '@').
int nm_ParseORN(const char* address, NmORName* name, int* status);

// The local default mail node, from the first line of ~/sys/mailnode that is neither blank
// nor a '#' comment, without blanks around it. which must be 1 (the default node). Returns 1
// when a node is configured; 0 with an empty node otherwise (no file, no such line).
int cl_ReadDefMNode(int which, std::string* node);

// Non-zero when the first argument belongs to node. firstKind 2: the first argument is an
// address and its mail node is compared; 1: it is a mail node itself. noNodeIsLocal 1: an
// address without a node belongs to any node (it is already local). Nodes compare without
// regard to case and to one trailing '.'. An empty node matches nothing.
int nm_CompareMailnodes(const char* first, const char* node, int firstKind, int noNodeIsLocal);

// Turns an Internet address ("Name <joe@example.com>", "joe@example.com (Joe)",
// "SMTP:joe@example.com") into the server's address text "joe@example.com". result and
// scratch each hold at least strlen(address) + 1 bytes: the result is never longer than the
// address. mode is kept for the callers and must be 1. Returns 1 when an address was found,
// 0 when the result is empty.
int mim_ArpaToORN(const char* address, char* result, char* scratch, int mode);

// Rewrites address in place from its parsed name: mode with bit 0 set writes the local part
// alone (the local form; the codec passes 7), otherwise "local@node". Nothing is written
// when the new text would be longer than the old one, so the caller's buffer is never
// overrun.
void mim_SetOrgUAddress(char* address, const NmORName* name, int mode);

#pragma GCC visibility pop
