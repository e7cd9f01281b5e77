// Messages: a folder per message under ~/store/messages/, holding its message file and its
// parts.
//
//   ~/store/messages/<id>/msgfile    the message file (records), written by Msg_Save
//   ~/store/messages/<id>/part-<n>   part n (1, 2, ...): a hard link to the attached item
//
// The id is sixteen lower-case hexadecimal digits: the creation time in seconds and a
// random word, so ids sort by age.
//
// A new message is built where no reader looks, ~/store/staging/<id>/ (taken with mkdir, so
// concurrent processes never share one, and locked with flock while its process lives), and
// published by Msg_Save: its files, the objects its records name and its folder are made
// durable, then one rename makes it ~/store/messages/<id>/. A reader (Msg_List, Msg_Open in
// another process) finds no message or the whole message, whenever the builder dies.
//
// Message handles are 16-bit, valid from Msg_Create or Msg_Open until Msg_Close; a closed
// handle is refused (103/2). Closing keeps the message.
//
// Parts are hard links, never copies: an attached item outlives im_UnlinkItem of its own
// name, and Msg_GetAttachedFile names the message's link (an IM_KIND_MESSAGE reference), so
// the part stays readable whatever happens to the item it came from.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tnef/platform/im_items.h"

// Everything this header declares is part of the library's exported interface.
#pragma GCC visibility push(default)

// A new, empty message (its message file exists and holds no record), staged: this process
// alone sees it until Msg_Save publishes it. Closing its last handle unsaved removes it.
int16_t Msg_Create();
// The message with that id. Raises 100/ENOENT naming the folder when there is none.
int16_t Msg_Open(const char* id);
// Releases the handle; the message stays.
void Msg_Close(int16_t msg);
// Removes the message (its folder, message file and part links; items and kept objects
// linked elsewhere stay) and releases the handle.
void Msg_Delete(int16_t msg);
std::string Msg_GetId(int16_t msg);
// Ids of every message in the store, oldest first.
std::vector<std::string> Msg_List();
// Number of open message handles (for leak checks).
int Msg_OpenHandleCount();

// Hard-links the item into the message as its next part and returns the part's number.
int Msg_AttachFile(int16_t msg, const ItemRef& ref);
// Removes the message's link to its last part, which must be part n (parts stay without
// gaps). Raises 103/5 when part n is not the last part; the item itself stays.
void Msg_DetachFile(int16_t msg, uint32_t partNumber);
// The reference of part n. Raises 103/5 when the message has no such part.
void Msg_GetAttachedFile(int16_t msg, ItemRef* ref, uint32_t partNumber);
// Number of parts (1 to n, without gaps).
uint32_t Msg_GetPartCount(int16_t msg);

// The reference of the message's own message file, for tf_OpenFile.
void Msg_GetFileRef(int16_t msg, ItemRef* ref);
// tf_OpenFile on it, for update.
int16_t Msg_OpenFile(int16_t msg);
// Makes the records of message file tf the message's message file. On the way, every
// counted content-file record (30500 without TF_CONTENT_NOT_COUNTED) whose size at 28 is 0
// gets the size of the part of the same number (counted records are numbered 1, 2, ... in
// file order, packages included); a record without such a part keeps 0. The sizes are
// filled in tf's own file too (unless it is open read-only). When tf is the message's own
// file that is the save; otherwise the file is copied and put in place with rename, so a
// reader sees the old message file or the new one, never half of either. A staged message
// is then published (see above); an escape leaves it staged. The handle's reading position
// is not disturbed. Raises 103/3 for a damaged message file.
void Msg_Save(int16_t msg, int16_t tf);

// The message's folder: the one place that names it.
std::string msg_FolderPath(uint32_t idHigh, uint32_t idLow);

// Takes back, when an escape passes through it, the names the store made while it was open
// outside any message folder: kept objects, and the own names of items attached as parts.
// For work that builds a message and then publishes it (a decode, then Msg_Save): when it
// fails, deleting the unpublished message leaves nothing it stored. Scopes nest; the
// outermost one undoes.
class StoreUndoScope {
public:
    StoreUndoScope();
    ~StoreUndoScope();
    StoreUndoScope(const StoreUndoScope&) = delete;
    StoreUndoScope& operator=(const StoreUndoScope&) = delete;

private:
    int escapes_;
};

// Closes a message handle on destruction without raising.
class MsgOwner {
public:
    MsgOwner() = default;
    explicit MsgOwner(int16_t msg) : msg_(msg) {}
    ~MsgOwner();
    MsgOwner(const MsgOwner&) = delete;
    MsgOwner& operator=(const MsgOwner&) = delete;

    int16_t get() const { return msg_; }
    int16_t release() {
        const int16_t msg = msg_;
        msg_ = 0;
        return msg;
    }

private:
    int16_t msg_ = 0;
};

#pragma GCC visibility pop
