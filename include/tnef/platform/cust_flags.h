// Customisation flags: "~/sys/custom.flags", one NAME=VALUE per line, '#' starts a comment.
// True is 1/true/yes/on and false 0/false/no/off, in any case; a name that is absent, or
// whose value is neither, is not configured. In-process overrides (cust_Set) win over the
// file; the file is re-read when its modification time changes.
#pragma once

// Everything this header declares is part of the library's exported interface.
#pragma GCC visibility push(default)

// True only when the flag is configured and true.
bool cust_PresentAndTrue(const char* name);
// True only when the flag is configured and false.
bool cust_PresentAndFalse(const char* name);
// The flag's value, or defaultValue when it is not configured. The last two arguments are
// kept for the callers' sake and ignored.
int cust_GetBoolean(const char* name, int defaultValue, int unused1, int unused2);

// Overrides for this process (the command line's --set, the tests). A value that is neither
// true nor false makes the flag not configured, whatever the file says.
void cust_Set(const char* name, const char* value);
void cust_Clear(const char* name);
void cust_ClearAll();

#pragma GCC visibility pop
