// The records of the remote filesystem's operations, as the host holds
// them, and the descriptor tables that put them on the wire.
//
// Every record is packed, so that the codec, which walks records packed,
// finds each field where the table says. Strings and buffers are real
// pointers; the codec counts them with their 32-bit sizes (docs/remote-fs.md).
//
// The read and readdir replies keep their status naturally aligned behind
// the 8-bit flag (three pad bytes), while the codec puts and takes the
// status item right after the flag: on the host the status of these two
// replies is the fourth byte of the status item, 0 to 255.
#pragma once

#include "remotefs/message_codec.h"

#include <cstdint>

// Flag bytes exchanged by the mount request; their meaning is the device's.
struct MountFlags {
    std::uint8_t bytes[4];
};

namespace vukra::remotefs {

// Operation codes of the message frame. 3 and 14 are not issued.
enum OperationCode : std::uint8_t {
    kOpNull = 0,
    kOpMount = 1,
    kOpGetattr = 2,
    kOpLookup = 4,
    kOpRead = 5,
    kOpWrite = 6,
    kOpCreate = 7,
    kOpRemove = 8,
    kOpRename = 9,
    kOpMkdir = 10,
    kOpRmdir = 11,
    kOpReaddir = 12,
    kOpFsstat = 13,
    kOpMkfs = 15,
    kOperationCodes = 16,
};

// The message frame: marker, code, two zero bytes, payload length (LE),
// a zero word, then the payload.
inline constexpr std::uint8_t kFrameMarker = 1;
inline constexpr std::uint32_t kFrameHeaderSize = 12;
inline constexpr std::uint32_t kFrameSize = 1980;
inline constexpr std::uint32_t kPayloadCapacity = kFrameSize - kFrameHeaderSize; // 1968

// Read and write move at most this many bytes per request.
inline constexpr std::uint32_t kMaxTransfer = 1024;
// The entry count every readdir request asks for.
inline constexpr std::uint32_t kReaddirCount = 120;
// Bytes of a listing entry's name, its NUL included.
inline constexpr std::uint32_t kEntryNameSize = 256;

#pragma pack(push, 1)

// An open object on the device: directory reference and file descriptor.
struct FileHandle {
    std::uint32_t node; // directory reference; non-zero while a directory is open
    std::int32_t tag;   // file descriptor; non-negative while a file is open
};

// The meaning of these words is the device's; the host passes them through.
struct FileAttributes {
    std::uint32_t words[4];
};
struct FsUsage {
    std::uint32_t words[4];
};
struct MkfsParams {
    std::uint32_t words[3];
};

// One node of a decoded directory list. Nodes are allocated by the decoder.
struct DirEntryNode {
    std::uint32_t entry;
    const char* name; // points into the reply buffer
    DirEntryNode* next;
};

// ---- requests ------------------------------------------------------------

struct NullRequest { // 0
    std::uint32_t volume;
};

struct MountRequest { // 1
    const char* path;
    MountFlags flags;
};

struct GetattrRequest { // 2
    std::uint32_t volume;
    FileHandle handle;
};

// lookup (4), create (7) and mkdir (10): a path resolved from a directory.
struct LookupRequest {
    std::uint32_t volume;
    FileHandle directory;
    const char* path;
};

struct ReadRequest { // 5
    std::uint32_t volume;
    FileHandle handle;
    std::int32_t position;
    std::uint32_t count;
};

struct WriteRequest { // 6
    std::uint32_t volume;
    FileHandle handle;
    std::int32_t position;
    std::uint32_t count;
    WireBuffer data;
};

// remove (8), rmdir (11) and fsstat (13): an object named by path alone.
struct PathRequest {
    std::uint32_t volume;
    const char* path;
};

struct RenameRequest { // 9
    std::uint32_t volume;
    const char* old_path;
    const char* new_path;
};

struct ReaddirRequest { // 12
    std::uint32_t volume;
    FileHandle handle;
    std::int32_t cookie;
    std::uint32_t count;
};

struct MkfsRequest { // 15
    std::uint32_t volume;
    FileHandle handle;
    MkfsParams params;
};

// ---- replies -------------------------------------------------------------

// null (0), remove (8), rename (9), rmdir (11) and mkfs (15).
struct StatusReply {
    std::int32_t status;
};

struct MountReply { // 1
    std::uint32_t volume;
    MountFlags flags;
    std::int32_t status;
};

struct GetattrReply { // 2
    FileAttributes attributes;
    std::int32_t status;
};

// lookup (4), create (7) and mkdir (10).
struct LookupReply {
    FileHandle handle;
    FileAttributes attributes;
    std::int32_t status;
};

struct ReadReply { // 5
    std::uint32_t count; // the bytes read; data.length is the padded item length
    WireBuffer data;
    std::uint8_t eof;
    std::uint8_t pad[3]; // the status item starts here on the wire
    std::int32_t status;
};

struct WriteReply { // 6
    std::uint32_t count;
    std::int32_t status;
};

struct ReaddirReply { // 12
    DirEntryNode* entries;
    std::int32_t cookie;
    std::uint8_t eof;
    std::uint8_t pad[3]; // the status item starts here on the wire
    std::int32_t status;
};

struct FsstatReply { // 13
    FsUsage usage;
    std::int32_t status;
};

#pragma pack(pop)

// ---- descriptor tables -----------------------------------------------------

extern const FieldDescriptor kFileHandleFields[];
extern const FieldDescriptor kFileAttributesFields[];
extern const FieldDescriptor kFsUsageFields[];
extern const FieldDescriptor kMkfsParamsFields[];
extern const FieldDescriptor kMountFlagsFields[];
extern const FieldDescriptor kDirEntryNodeFields[];

extern const FieldDescriptor kNullRequestFields[];
extern const FieldDescriptor kMountRequestFields[];
extern const FieldDescriptor kGetattrRequestFields[];
extern const FieldDescriptor kLookupRequestFields[]; // also create and mkdir
extern const FieldDescriptor kReadRequestFields[];
extern const FieldDescriptor kWriteRequestFields[];
extern const FieldDescriptor kPathRequestFields[]; // remove, rmdir, fsstat
extern const FieldDescriptor kRenameRequestFields[];
extern const FieldDescriptor kReaddirRequestFields[];
extern const FieldDescriptor kMkfsRequestFields[];

extern const FieldDescriptor kStatusReplyFields[]; // null, remove, rename, rmdir, mkfs
extern const FieldDescriptor kMountReplyFields[];
extern const FieldDescriptor kGetattrReplyFields[];
extern const FieldDescriptor kLookupReplyFields[]; // also create and mkdir
extern const FieldDescriptor kReadReplyFields[];
extern const FieldDescriptor kWriteReplyFields[];
extern const FieldDescriptor kReaddirReplyFields[];
extern const FieldDescriptor kFsstatReplyFields[];

// An operation's pair of tables with the size passed to encode (request)
// and the capacity passed to decode (reply), in 32-bit terms. The write
// request is passed its count + 28. Codes 3 and 14 have null tables.
struct OperationTables {
    const FieldDescriptor* request;
    std::uint32_t request_size;
    const FieldDescriptor* reply;
    std::uint32_t reply_capacity;
};
extern const OperationTables kOperations[kOperationCodes];

// Frees a decoded list, node after node (std::free).
void free_nodes(DirEntryNode* head);

} // namespace vukra::remotefs
