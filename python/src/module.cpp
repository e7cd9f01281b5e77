// tnef._tnef: the codec's reader, bodies, attachments and server entries for Python. The
// Pythonic face (mappings, named tuples, the Dask recipe) is in the tnef package around it.
//
// Threads: the codec keeps process-wide state (the server home, the customisation flags,
// the character-set alias map the reader's text conversion consults, the class map, the
// I/O batch), so every call that runs codec code holds g_codec. The GIL is released first
// and the lock taken after, never the other way round, so a thread waiting for the codec
// never blocks Python. Copying an attachment's bytes touches no such state and runs
// without the lock.

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "names.h"
#include "tnef/platform/cust_flags.h"
#include "tnef/platform/er_escape.h"
#include "tnef/platform/im_items.h"
#include "tnef/platform/msg_builder.h"
#include "tnef/platform/msg_store.h"
#include "tnef/platform/os_file.h"
#include "tnef/platform/tf_msgfile.h"
#include "tnef/tnef.h"
#include "tnef/tnef_attachments.h"
#include "tnef/tnef_body.h"
#include "tnef/tnef_reader.h"

namespace py = pybind11;

namespace {

std::mutex g_codec;  // held by every call into codec code; see the comment at the top

// Runs f with the GIL released and the codec lock held.
template <class F>
auto withCodec(F&& f) {
    py::gil_scoped_release release;
    std::lock_guard<std::mutex> lock(g_codec);
    return f();
}

// Raised from C++ while the GIL is held: escapes become tnef.TnefError, or OSError for
// group 100 (whose reason is an errno).
// Sets the Python error (OSError's own subclass for the errno: FileNotFoundError, ...).
void setErrno(int err, const std::string& filename) {
    errno = err;
    if (filename.empty())
        PyErr_SetFromErrno(PyExc_OSError);
    else
        PyErr_SetFromErrnoWithFilename(PyExc_OSError, filename.c_str());
}

[[noreturn]] void raiseErrno(int err, const std::string& filename) {
    setErrno(err, filename);
    throw py::error_already_set();
}

void setTnefError(const std::string& what, int group, int reason) {
    py::object error = py::module_::import("tnef._errors").attr("TnefError")(what, group, reason);
    PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(error.ptr())), error.ptr());
}

void translateEscape(const Escape& e) {
    if (e.group == ER_GROUP_IO && e.reason > 0)
        setErrno(e.reason, e.detail);
    else
        setTnefError(e.what(), e.group, e.reason);
}

py::object utf8Text(const std::string& text) {
    PyObject* s =
        PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()), "replace");
    if (s == nullptr) throw py::error_already_set();
    return py::reinterpret_steal<py::object>(s);
}

// ---- The file a message is read from ----------------------------------------------------------

// Owns the descriptor; shared by a message, its embedded messages and its attachments, so
// the file stays open while any of them is alive (or until close()).
struct Source {
    int fd = -1;
    std::string name;  // the path, or "<bytes>"
    ~Source() {
        if (fd >= 0) ::close(fd);
    }
    int checked() const {
        if (fd < 0) throw py::value_error("I/O on a closed tnef.Message");
        return fd;
    }
};

// An unnamed in-memory file holding bytes: the reader wants a regular file it can read at
// any offset, and this leaves nothing behind.
int memoryFile(const char* data, size_t size) {
    const int fd = ::memfd_create("tnef", MFD_CLOEXEC);
    if (fd < 0) return -1;
    size_t done = 0;
    while (done < size) {
        const ssize_t n = ::write(fd, data + done, size - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            const int err = errno;
            ::close(fd);
            errno = err;
            return -1;
        }
        done += static_cast<size_t>(n);
    }
    return fd;
}

std::shared_ptr<Source> sourceFromPath(const std::string& path) {
    auto src = std::make_shared<Source>();
    src->name = path;
    {
        py::gil_scoped_release release;
        src->fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    }
    if (src->fd < 0) raiseErrno(errno, path);
    return src;
}

std::shared_ptr<Source> sourceFromBuffer(const py::object& data, const std::string& name) {
    Py_buffer view;
    // Contiguous bytes only: a strided view raises BufferError here.
    if (PyObject_GetBuffer(data.ptr(), &view, PyBUF_C_CONTIGUOUS) != 0)
        throw py::error_already_set();
    auto src = std::make_shared<Source>();
    src->name = name;
    {
        py::gil_scoped_release release;
        src->fd = memoryFile(static_cast<const char*>(view.buf), static_cast<size_t>(view.len));
    }
    const int err = errno;
    PyBuffer_Release(&view);
    if (src->fd < 0) raiseErrno(err, name);
    return src;
}

// A file object: its own descriptor when it has a regular file under it (read in place,
// at its offsets; its position is left alone), else its read() bytes.
std::shared_ptr<Source> sourceFromFile(const py::object& file) {
    if (py::hasattr(file, "fileno")) {
        int fd = -1;
        try {
            fd = file.attr("fileno")().cast<int>();
        } catch (const py::error_already_set&) {
            fd = -1;  // io.BytesIO and friends: no descriptor, read() below
        }
        struct stat st {};
        if (fd >= 0 && ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) {
            auto src = std::make_shared<Source>();
            src->name = py::hasattr(file, "name") ? py::str(file.attr("name")).cast<std::string>()
                                                  : std::string("<file>");
            src->fd = ::fcntl(fd, F_DUPFD_CLOEXEC, 0);
            if (src->fd < 0) raiseErrno(errno, src->name);
            return src;
        }
    }
    py::object data = file.attr("read")();
    if (!PyObject_CheckBuffer(data.ptr()))
        throw py::type_error("tnef.open: the file's read() must return bytes");
    return sourceFromBuffer(data, "<file>");
}

// ---- Values ----------------------------------------------------------------------------------

constexpr uint16_t kMvFlag = 0x1000;
constexpr uint64_t kMapiTicksPerSecond = 10000000;
constexpr uint64_t kMapiToUnixSeconds = 11644473600ull;
// The end of datetime's range, 9999-12-31 23:59:59, as seconds since 1601.
constexpr uint64_t kDatetimeMaxSeconds = 253402300799ull + kMapiToUnixSeconds;

struct PyTypes {
    py::object uuid;       // uuid.UUID
    py::object datetime;   // datetime.datetime
    py::object timedelta;  // datetime.timedelta
    py::object epoch;      // 1601-01-01 UTC
};

PyTypes& pyTypes() {
    static PyTypes* types = [] {
        auto* t = new PyTypes;  // kept for the life of the interpreter
        py::module_ dt = py::module_::import("datetime");
        t->uuid = py::module_::import("uuid").attr("UUID");
        t->datetime = dt.attr("datetime");
        t->timedelta = dt.attr("timedelta");
        t->epoch = t->datetime(1601, 1, 1, 0, 0, 0, 0, dt.attr("timezone").attr("utc"));
        return t;
    }();
    return *types;
}

py::object guidObject(const TnefGuid& g) {
    return pyTypes().uuid(py::arg("bytes_le") =
                              py::bytes(reinterpret_cast<const char*>(g.data()), g.size()));
}

// A MAPI time as an aware UTC datetime to the microsecond; the raw count of 100 ns steps
// when it lies beyond datetime's years 1 to 9999.
py::object timeObject(uint64_t mapiTime) {
    const uint64_t seconds = mapiTime / kMapiTicksPerSecond;
    if (seconds > kDatetimeMaxSeconds) return py::int_(mapiTime);
    const uint64_t micros = (mapiTime % kMapiTicksPerSecond) / 10;
    const PyTypes& t = pyTypes();
    return t.epoch + t.timedelta(0, seconds, micros);
}

py::bytes readBytes(int fd, uint64_t offset, uint64_t length) {
    std::string bytes(length, '\0');
    size_t done = 0;
    int err = 0;
    {
        py::gil_scoped_release release;
        while (done < bytes.size()) {
            const ssize_t n = ::pread(fd, bytes.data() + done, bytes.size() - done,
                                      static_cast<off_t>(offset + done));
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) {
                err = n < 0 ? errno : EIO;  // EIO: the file is shorter than when it was read
                break;
            }
            done += static_cast<size_t>(n);
        }
    }
    if (err != 0) raiseErrno(err, "");
    return py::bytes(bytes);
}

bool isText(uint16_t type) {
    return type == 0x001E || type == 0x001F;
}
bool isBinary(uint16_t type) {
    return type == 0x0102 || type == 0x000D;
}

py::object valueObject(int fd, const TnefPropEntry& e, size_t i) {
    const TnefValue& v = e.values[i];
    if (isText(v.type)) return utf8Text(e.texts[i]);
    if (isBinary(v.type)) return readBytes(fd, v.offset, v.length);
    switch (v.type) {
        case 0x000B:
            return py::bool_(v.boolean);
        case 0x0004:
        case 0x0005:
        case 0x0007:
            return py::float_(v.real);
        case 0x0006:
            return py::float_(static_cast<double>(v.integer) / 10000.0);
        case 0x0040:
            return timeObject(v.mapiTime);
        case 0x0048:
            return guidObject(v.guid);
        default:
            return py::int_(v.integer);
    }
}

py::object textOrNone(const char* text) {
    return text != nullptr ? py::object(py::str(text)) : py::object(py::none());
}

// (tag, type, type_name, name, set, lid, string_name, value): tnef.Property's fields.
py::tuple propertyTuple(int fd, const TnefPropEntry& e) {
    const TnefProp& p = e.prop;
    py::object value;
    if ((p.type & kMvFlag) != 0) {
        py::list values;
        for (size_t i = 0; i < e.values.size(); ++i) values.append(valueObject(fd, e, i));
        value = values;
    } else {
        value = e.values.empty() ? py::object(py::none()) : valueObject(fd, e, 0);
    }
    const char* name = p.named ? (p.stringName ? nullptr : tnef_NamedPropName(p.set, p.lid))
                               : tnef_PropName(p.tag);
    return py::make_tuple(
        p.tag, p.type, textOrNone(tnef_PropTypeName(p.type)), textOrNone(name),
        p.named ? guidObject(p.set) : py::object(py::none()),
        p.named && !p.stringName ? py::object(py::int_(p.lid)) : py::object(py::none()),
        p.named && p.stringName ? py::object(py::str(p.name)) : py::object(py::none()), value);
}

py::list propertyList(int fd, const std::vector<TnefPropEntry>& entries) {
    py::list out;
    for (const TnefPropEntry& e : entries) out.append(propertyTuple(fd, e));
    return out;
}

// ---- Messages and attachments ----------------------------------------------------------------

// One opened file: its attachment listing, read at open (all that listing attachments
// needs), and the whole message view, read once, under the state's own mutex, when anything
// else is asked for (subject, properties, recipients, bodies, embedded messages, warnings).
struct State {
    std::shared_ptr<Source> src;
    TnefAttachList list;
    std::mutex mutex;
    std::unique_ptr<TnefMessageView> view;

    // Called with the GIL held; releases it while the file is read.
    const TnefMessageView& loaded() {
        bool closed = false;
        {
            py::gil_scoped_release release;
            std::lock_guard<std::mutex> lock(mutex);
            if (!view && src->fd < 0) {
                closed = true;
            } else if (!view) {
                auto v = std::make_unique<TnefMessageView>();
                {
                    std::lock_guard<std::mutex> codec(g_codec);
                    tnef_ReadMessage(src->fd, v.get());
                }
                view = std::move(v);
            }
        }
        if (closed) throw py::value_error("I/O on a closed tnef.Message");
        return *view;
    }
};

// The view (of the message or an embedded one) that holds attachment `index`, and where.
bool findAttachment(const TnefMessageView& v, uint32_t index, const TnefMessageView** owner,
                    size_t* at) {
    for (size_t i = 0; i < v.attachments.size(); ++i)
        if (v.attachments[i].index == index) {
            *owner = &v;
            *at = i;
            return true;
        }
    for (const TnefMessageView& e : v.embedded)
        if (findAttachment(e, index, owner, at)) return true;
    return false;
}

class Message;

class Attachment {
  public:
    Attachment(std::shared_ptr<State> st, const TnefAttachInfo* info)
        : st_(std::move(st)), info_(info) {}
    const TnefAttachInfo& info() const { return *info_; }
    const std::shared_ptr<Source>& source() const { return st_->src; }

    py::bytes read() const {
        return readBytes(st_->src->checked(), info_->dataOffset, info_->dataLength);
    }
    py::list properties() const {
        const TnefMessageView* owner = nullptr;
        size_t at = 0;
        if (!findAttachment(st_->loaded(), info_->index, &owner, &at)) return py::list();
        return propertyList(st_->src->checked(), owner->attachmentProperties[at]);
    }
    py::object embedded() const;  // the Message it holds, when it is one

  private:
    std::shared_ptr<State> st_;
    const TnefAttachInfo* info_;  // in the state's listing or view, alive as long as it
};

class Message {
  public:
    // The file's own message (view null: the state's, read on demand), or an embedded one.
    Message(std::shared_ptr<State> st, const TnefMessageView* view)
        : st_(std::move(st)), view_(view) {}

    static Message open(std::shared_ptr<Source> src) {
        auto st = std::make_shared<State>();
        st->src = std::move(src);
        const int fd = st->src->fd;
        withCodec([&] { tnef_ListAttachments(fd, &st->list); });
        return Message(std::move(st), nullptr);
    }

    const TnefMessageView& view() const { return view_ != nullptr ? *view_ : st_->loaded(); }
    const std::shared_ptr<Source>& source() const { return st_->src; }
    // From the view: the listing's subject and class follow slightly different fallbacks.
    std::string subject() const { return view().subject; }
    std::string messageClass() const { return view().messageClass; }
    uint32_t codePage() const { return view().codePage; }
    uint32_t depth() const { return view_ != nullptr ? view_->depth : 0; }

    py::list attachments() const {
        py::list out;
        if (view_ != nullptr) {
            for (const TnefAttachInfo& a : view_->attachments) out.append(Attachment(st_, &a));
        } else {
            for (const TnefAttachInfo& a : st_->list.attachments)
                if (a.parent == 0) out.append(Attachment(st_, &a));
        }
        return out;
    }
    py::list embedded() const {
        py::list out;
        for (const TnefMessageView& e : view().embedded) out.append(Message(st_, &e));
        return out;
    }
    py::list warnings() const {
        const TnefMessageView& v = view();
        py::list out;
        for (const std::string& w : readDamageTexts(v.flags)) out.append(w);
        for (const TnefAttachInfo& a : v.attachments) {
            if (a.flags & TNEF_ATTACH_DATA_CUT)
                out.append("attachment " + std::to_string(a.index) + " is cut short");
            if (a.flags & TNEF_ATTACH_NAME_CUT)
                out.append("attachment " + std::to_string(a.index) + ": a name was shortened");
        }
        return out;
    }
    py::list properties() const { return propertyList(st_->src->checked(), view().properties); }
    py::list recipients() const {
        const TnefMessageView& v = view();
        py::list out;
        const int fd = st_->src->checked();
        for (const auto& row : v.recipients) out.append(propertyList(fd, row));
        return out;
    }
    py::object body(const std::string& format) const {
        static constexpr struct {
            const char* name;
            TnefBodyKind kind;
        } kFormats[] = {{"best", TNEF_BODY_NONE},
                        {"html", TNEF_BODY_HTML},
                        {"text", TNEF_BODY_TEXT},
                        {"rtf", TNEF_BODY_RTF}};
        const auto* f = std::find_if(std::begin(kFormats), std::end(kFormats),
                                     [&](const auto& k) { return format == k.name; });
        if (f == std::end(kFormats))
            throw py::value_error("body format must be best, html, text or rtf, not '" + format +
                                  "'");
        const TnefMessageView& v = view();
        const int fd = st_->src->checked();
        const TnefBody b = withCodec([&] { return tnef_MessageBody(fd, v, f->kind); });
        if (b.kind == TNEF_BODY_NONE) return py::none();
        if (b.kind == TNEF_BODY_RTF) return py::bytes(b.text);
        return utf8Text(b.text);
    }
    void close() {
        std::lock_guard<std::mutex> lock(st_->mutex);  // not while a view is being read
        if (st_->src->fd >= 0) ::close(st_->src->fd);
        st_->src->fd = -1;
    }

  private:
    std::shared_ptr<State> st_;
    const TnefMessageView* view_;
};

py::object Attachment::embedded() const {
    if (info_->kind != TNEF_ATTACH_MESSAGE) return py::none();
    const TnefMessageView* owner = nullptr;
    size_t at = 0;
    if (!findAttachment(st_->loaded(), info_->index, &owner, &at)) return py::none();
    size_t k = 0;  // the view holds one embedded message per message attachment, in order
    for (size_t j = 0; j < at; ++j) k += owner->attachments[j].kind == TNEF_ATTACH_MESSAGE ? 1 : 0;
    if (k >= owner->embedded.size()) return py::none();
    return py::cast(Message(st_, &owner->embedded[k]));
}

// ---- Writing attachments into a folder -------------------------------------------------------

// A folder attachments are written into, as the tool's extract writes them: safe names,
// "name (n).ext" for a name that is taken, and with overwrite only files that were there
// before, never one this target wrote.
class Target {
  public:
    Target(const std::string& dir, bool overwrite) : dir_(dir), overwrite_(overwrite) {
        {
            py::gil_scoped_release release;
            std::error_code ignored;  // the open below says what is wrong, if anything
            std::filesystem::create_directories(dir, ignored);
            fd_ = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        }
        if (fd_ < 0) raiseErrno(errno, dir);
    }
    ~Target() {
        if (fd_ >= 0) ::close(fd_);
    }
    Target(const Target&) = delete;
    Target& operator=(const Target&) = delete;

    // Writes the attachment, returns its path. What the file holds of a cut attachment is
    // written (it may be all there is); a failed copy leaves no file.
    std::string save(const Attachment& a) {
        const TnefAttachInfo& info = a.info();
        const int in = a.source()->checked();
        std::string chosen;
        int err = 0;
        std::string failure;
        int group = 0;
        int reason = 0;
        {
            py::gil_scoped_release release;
            const int out = create(attachFileName(info), &chosen, &err);
            if (out >= 0) {
                try {
                    tnef_CopyAttachment(in, &info, out);
                    if (info.modified > 0) {
                        const timespec times[2] = {{0, UTIME_OMIT},
                                                   {static_cast<time_t>(info.modified), 0}};
                        ::futimens(out, times);
                    }
                } catch (const Escape& e) {
                    failure = e.what();
                    group = e.group;
                    reason = e.reason;
                }
                if (::close(out) != 0 && failure.empty()) err = errno;
                if (!failure.empty() || err != 0) ::unlinkat(fd_, chosen.c_str(), 0);
            }
        }
        const std::string path = dir_ + "/" + chosen;
        if (group == ER_GROUP_IO && reason > 0) raiseErrno(reason, path);
        if (!failure.empty()) {
            setTnefError(failure, group, reason);
            throw py::error_already_set();
        }
        if (err != 0) raiseErrno(err, path);
        return path;
    }

  private:
    int create(const std::string& name, std::string* chosen, int* err) {
        constexpr unsigned kMaxCandidates = 10000;
        for (unsigned n = 1; n <= kMaxCandidates; ++n) {
            const std::string candidate = n == 1 ? name : numberedName(name, n);
            if (written_.count(candidate) != 0) continue;
            int fd = ::openat(fd_, candidate.c_str(),
                              O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0666);
            if (fd < 0 && errno == EEXIST && overwrite_) {
                struct stat st {};
                if (::fstatat(fd_, candidate.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 &&
                    S_ISREG(st.st_mode))
                    fd = ::openat(fd_, candidate.c_str(),
                                  O_WRONLY | O_TRUNC | O_CLOEXEC | O_NOFOLLOW);
            }
            *chosen = candidate;
            if (fd >= 0) {
                written_.insert(candidate);
                return fd;
            }
            if (errno != EEXIST) {
                *err = errno;
                return -1;
            }
        }
        *err = EEXIST;
        *chosen = name;
        return -1;
    }

    std::string dir_;
    bool overwrite_;
    int fd_ = -1;
    std::set<std::string> written_;
};

// ---- The server's entries --------------------------------------------------------------------

// The server home and customisation flags of one call, put back when it ends.
class CallSettings {
  public:
    CallSettings(const std::string& home,
                 const std::vector<std::pair<std::string, std::string>>& flags)
        : flags_(flags) {
        if (!home.empty()) {
            previous_ = os_GetHome();
            os_SetHome(home);
            homeSet_ = true;
        }
        for (const auto& [name, value] : flags_) cust_Set(name.c_str(), value.c_str());
    }
    ~CallSettings() {
        for (const auto& f : flags_) cust_Clear(f.first.c_str());
        if (homeSet_) os_SetHome(previous_);
    }
    CallSettings(const CallSettings&) = delete;
    CallSettings& operator=(const CallSettings&) = delete;

  private:
    std::vector<std::pair<std::string, std::string>> flags_;
    std::string previous_;
    bool homeSet_ = false;
};

using Flags = std::vector<std::pair<std::string, std::string>>;

// tnef_Decode as the server runs it: a received message built around the file, decoded and
// saved. (id, folder, receipt code, reply requested, [paths of the attachment parts]).
py::tuple serverDecode(const std::string& path, const std::string& home, const Flags& flags,
                       bool suppressMapi, bool updateAddresses) {
    struct Result {
        std::string id, folder;
        uint16_t receipt = 0;
        uint32_t reply = 0;
        std::vector<std::string> parts;
    };
    const Result r = withCodec([&] {
        CallSettings settings(home, flags);
        ReceivedMessage received;
        received.tnefPath = path;
        const size_t slash = path.rfind('/');
        received.tnefName = slash == std::string::npos ? path : path.substr(slash + 1);
        int16_t messageFile = 0;
        MsgOwner message(Msg_BuildReceived(received, &messageFile));
        TfFileOwner receivedFile(messageFile);
        receivedFile.discardItem();
        Result out;
        try {
            tnef_Decode(message.get(), &messageFile, path.c_str(), &out.receipt, &out.reply,
                        updateAddresses ? 1 : 0, suppressMapi ? 1 : 0);
            TfFileOwner decodedFile(messageFile);
            decodedFile.discardItem();  // Msg_Save copies it into the message
            Msg_Save(message.get(), decodedFile.get());
        } catch (const Escape&) {
            Msg_Delete(message.release());
            throw;
        }
        out.id = Msg_GetId(message.get());
        out.folder = os_ResolvePath("~/store/messages/" + out.id);
        // A received message holds its body and the TNEF file first; attachments follow.
        const uint32_t count = Msg_GetPartCount(message.get());
        for (uint32_t n = 3; n <= count; ++n) {
            ItemRef ref{};
            Msg_GetAttachedFile(message.get(), &ref, n);
            out.parts.push_back(im_ItemRef2FName(ref));
        }
        return out;
    });
    return py::make_tuple(r.id, r.folder, r.receipt, r.reply != 0, r.parts);
}

py::tuple serverEncode(const std::string& id, const std::string& out, const std::string& home,
                       const Flags& flags) {
    struct Result {
        int result = 0;
        uint32_t word = 0;
        int64_t size = 0;
    };
    const Result r = withCodec([&] {
        CallSettings settings(home, flags);
        MsgOwner message(Msg_Open(id.c_str()));
        ItemRef ref{};
        Msg_GetFileRef(message.get(), &ref);
        TfFileOwner messageFile(tf_OpenFile(ref, TF_OPEN_READONLY));
        OsFd fd(::open(out.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
        if (fd.get() < 0)
            er_TracedEscapeText(ER_GROUP_IO, errno, "tnef.server.encode", __LINE__, out);
        Result e;
        try {
            e.result = tnef_Encode(messageFile.get(), fd.get(), 0, &e.word, message.get());
            e.size = os_lseek64(fd.get(), 0, SEEK_END);
            fd.close();
        } catch (const Escape&) {
            ::unlink(out.c_str());
            throw;
        }
        if (e.result == 0) ::unlink(out.c_str());  // nothing to send: no file left behind
        return e;
    });
    return py::make_tuple(r.result, r.word, r.result == 1 ? r.size : 0);
}

struct FreeText {
    void operator()(char* text) const { std::free(text); }
};
using OwnedText = std::unique_ptr<char, FreeText>;

py::object textBytes(const OwnedText& t) {
    return t ? py::object(py::bytes(t.get())) : py::object(py::none());
}

// tnef_GetProp answers "not found" for a file that is no TNEF at all; callers are told
// what the tool tells them, the reader's escape.
void requireSignature(int fd) {
    constexpr unsigned char kSignature[4] = {0x78, 0x9F, 0x3E, 0x22};
    unsigned char head[4] = {};
    const ssize_t n = ::pread(fd, head, sizeof head, 0);
    if (n < 0) er_TracedEscape(ER_GROUP_IO, errno, "tnef.server", __LINE__);
    if (n != static_cast<ssize_t>(sizeof head) || std::memcmp(head, kSignature, sizeof head) != 0)
        er_TracedEscape(ER_GROUP_TNEF, ER_TNEF_BAD_SIGNATURE, "tnef.server", __LINE__);
}

py::tuple serverGetprop(const std::string& path, const std::string& request, bool tables,
                        const std::string& home, const Flags& flags) {
    OwnedText props, recips, attach;
    const int found = withCodec([&] {
        CallSettings settings(home, flags);
        OsFd fd(os_open(path.c_str(), O_RDONLY | O_CLOEXEC, 0));
        requireSignature(fd.get());
        char* p = nullptr;
        char* r = nullptr;
        char* a = nullptr;
        const int f = tnef_GetProp(fd.get(), request.c_str(), &p, tables ? &r : nullptr,
                                   tables ? &a : nullptr, path.c_str());
        props.reset(p);
        recips.reset(r);
        attach.reset(a);
        return f;
    });
    return py::make_tuple(found == 1, textBytes(props), textBytes(attach), textBytes(recips));
}

int64_t serverWriteblob(const std::string& out, const std::optional<std::string>& props,
                        const std::optional<std::string>& attach,
                        const std::optional<std::string>& recips, const std::string& saved,
                        const std::string& home, const Flags& flags) {
    for (const auto* t : {&props, &attach, &recips})
        if (*t && t->value().find('\0') != std::string::npos)
            throw py::value_error("a property text holds a NUL byte; it is not a property text");
    return withCodec([&] {
        CallSettings settings(home, flags);
        OsFd savedFd(saved.empty() ? -1 : os_open(saved.c_str(), O_RDONLY | O_CLOEXEC, 0));
        OsFd fd(::open(out.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
        if (fd.get() < 0)
            er_TracedEscapeText(ER_GROUP_IO, errno, "tnef.server.writeblob", __LINE__, out);
        try {
            tnef_WriteBrenvoProps2ObjectFile(
                fd.get(), savedFd.get(), props ? props->c_str() : nullptr,
                attach ? attach->c_str() : nullptr, recips ? recips->c_str() : nullptr);
            const int64_t size = os_lseek64(fd.get(), 0, SEEK_END);
            fd.close();
            return size;
        } catch (const Escape&) {
            ::unlink(out.c_str());
            throw;
        }
    });
}

py::tuple serverScan(const std::string& path, uint32_t want, const std::string& home,
                     const Flags& flags) {
    struct Row {
        std::string longName, name;
        bool hasData;
    };
    std::vector<Row> rows;
    const int found = withCodec([&] {
        CallSettings settings(home, flags);
        OsFd fd(os_open(path.c_str(), O_RDONLY | O_CLOEXEC, 0));
        TnefScanList list;
        const int f = tnef_ScanTnef(fd.get(), want, &list.head);
        for (const TnefAttachScan* a = list.head; a != nullptr; a = a->next)
            rows.push_back({a->longFileName ? a->longFileName : "", a->fileName ? a->fileName : "",
                            a->hasData != 0});
        return f;
    });
    py::list out;
    for (const Row& r : rows)
        out.append(py::make_tuple(py::bytes(r.longName), py::bytes(r.name), r.hasData));
    return py::make_tuple(found == 1, out);
}

}  // namespace

PYBIND11_MODULE(_tnef, m) {
    m.doc() = "The TNEF codec's core; use the tnef package, which wraps it.";
    py::register_exception_translator([](std::exception_ptr p) {
        try {
            if (p) std::rethrow_exception(p);
        } catch (const Escape& e) {
            translateEscape(e);
        }
    });

    py::class_<Attachment>(m, "Attachment")
        .def_property_readonly("index", [](const Attachment& a) { return a.info().index; })
        .def_property_readonly("parent", [](const Attachment& a) { return a.info().parent; })
        .def_property_readonly("depth", [](const Attachment& a) { return a.info().depth; })
        .def_property_readonly("kind", [](const Attachment& a) { return attachKindName(a.info().kind); })
        .def_property_readonly("name", [](const Attachment& a) { return attachName(a.info()); })
        .def_property_readonly("safe_name",
                               [](const Attachment& a) { return attachFileName(a.info()); })
        .def_property_readonly("size", [](const Attachment& a) { return a.info().dataLength; })
        .def_property_readonly("mime_type", [](const Attachment& a) { return attachType(a.info()); })
        .def_property_readonly("content_id", [](const Attachment& a) { return a.info().contentId; })
        .def_property_readonly("modified", [](const Attachment& a) { return a.info().modified; })
        .def_property_readonly("method", [](const Attachment& a) { return a.info().method; })
        .def_property_readonly(
            "data_cut",
            [](const Attachment& a) { return (a.info().flags & TNEF_ATTACH_DATA_CUT) != 0; })
        .def_property_readonly("names",
                               [](const Attachment& a) {
                                   const TnefAttachInfo& i = a.info();
                                   py::dict d;
                                   d["long_file_name"] = i.longFileName;
                                   d["file_name"] = i.fileName;
                                   d["transport_name"] = i.transportName;
                                   d["title"] = i.title;
                                   d["display_name"] = i.displayName;
                                   return d;
                               })
        .def("read", &Attachment::read)
        .def("_properties", &Attachment::properties)
        .def("_embedded", &Attachment::embedded);

    py::class_<Message>(m, "Message")
        .def_property_readonly("subject", &Message::subject)
        .def_property_readonly("message_class", &Message::messageClass)
        .def_property_readonly("code_page", &Message::codePage)
        .def_property_readonly("depth", &Message::depth)
        .def_property_readonly("name", [](const Message& s) { return s.source()->name; })
        .def_property_readonly("closed", [](const Message& s) { return s.source()->fd < 0; })
        .def_property_readonly("warnings", &Message::warnings)
        .def_property_readonly("attachments", &Message::attachments)
        .def_property_readonly("embedded", &Message::embedded)
        .def("_properties", &Message::properties)
        .def("_recipients", &Message::recipients)
        .def("body", &Message::body, py::arg("format") = "best")
        .def("close", &Message::close);

    m.def("_open_path",
          [](const std::string& path) { return Message::open(sourceFromPath(path)); });
    m.def("_open_bytes",
          [](const py::object& b) { return Message::open(sourceFromBuffer(b, "<bytes>")); });
    m.def("_open_file", [](const py::object& f) { return Message::open(sourceFromFile(f)); });

    py::class_<Target>(m, "_Target")
        .def(py::init<const std::string&, bool>())
        .def("save", &Target::save);

    m.def(
        "tag_by_name", [](const std::string& name) { return tnef_PropTagByName(name); },
        "The tag of a published property name (PR_SUBJECT -> 0x0037001E), 0 when unknown.");
    m.def(
        "prop_name", [](uint32_t tag) { return textOrNone(tnef_PropName(tag)); },
        "The published name of a property tag, or None.");
    m.def("safe_file_name", [](const std::string& name, const std::string& fallback) {
        return safeFileName(name, fallback);
    });

    py::module_ server = m.def_submodule("_server");
    server.def("decode", &serverDecode);
    server.def("encode", &serverEncode);
    server.def("getprop", &serverGetprop);
    server.def("writeblob", &serverWriteblob);
    server.def("scan", &serverScan);
}
