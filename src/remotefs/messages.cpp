// The descriptor tables of every operation's request and reply.
#include "remotefs/messages.h"

#include <cstdlib>

namespace vukra::remotefs {

namespace {

constexpr FieldDescriptor byte_field{kFieldByte, 1, nullptr, 0};
constexpr FieldDescriptor word{kFieldWord, 4, nullptr, 0};
constexpr FieldDescriptor signed_word{kFieldSigned, 4, nullptr, 0};
constexpr FieldDescriptor string{kFieldString, 4, nullptr, 0};
constexpr FieldDescriptor buffer{kFieldBuffer, 8, nullptr, 0};
constexpr FieldDescriptor end{kFieldEnd, 0, nullptr, 0};

constexpr FieldDescriptor inline_record(const FieldDescriptor* table) { return {kFieldNested, 0, table, 0}; }
constexpr FieldDescriptor through_pointer(const FieldDescriptor* table) { return {kFieldNested, 4, table, 1}; }

} // namespace

constexpr FieldDescriptor kFileHandleFields[] = {word, signed_word, end};
constexpr FieldDescriptor kFileAttributesFields[] = {word, word, word, word, end};
constexpr FieldDescriptor kFsUsageFields[] = {word, word, word, word, end};
constexpr FieldDescriptor kMkfsParamsFields[] = {word, word, word, end};
constexpr FieldDescriptor kMountFlagsFields[] = {byte_field, byte_field, byte_field, byte_field, end};
constexpr FieldDescriptor kDirEntryNodeFields[] = {word, string, through_pointer(kDirEntryNodeFields), end};

constexpr FieldDescriptor kNullRequestFields[] = {word, end};
constexpr FieldDescriptor kMountRequestFields[] = {string, inline_record(kMountFlagsFields), end};
constexpr FieldDescriptor kGetattrRequestFields[] = {word, inline_record(kFileHandleFields), end};
constexpr FieldDescriptor kLookupRequestFields[] = {word, inline_record(kFileHandleFields), string, end};
constexpr FieldDescriptor kReadRequestFields[] = {word, inline_record(kFileHandleFields), signed_word, word, end};
constexpr FieldDescriptor kWriteRequestFields[] = {word, inline_record(kFileHandleFields), signed_word, word, buffer,
                                                   end};
constexpr FieldDescriptor kPathRequestFields[] = {word, string, end};
constexpr FieldDescriptor kRenameRequestFields[] = {word, string, string, end};
constexpr FieldDescriptor kReaddirRequestFields[] = {word, inline_record(kFileHandleFields), signed_word, word, end};
constexpr FieldDescriptor kMkfsRequestFields[] = {word, inline_record(kFileHandleFields),
                                                  inline_record(kMkfsParamsFields), end};

constexpr FieldDescriptor kStatusReplyFields[] = {signed_word, end};
constexpr FieldDescriptor kMountReplyFields[] = {word, inline_record(kMountFlagsFields), signed_word, end};
constexpr FieldDescriptor kGetattrReplyFields[] = {inline_record(kFileAttributesFields), signed_word, end};
constexpr FieldDescriptor kLookupReplyFields[] = {inline_record(kFileHandleFields),
                                                  inline_record(kFileAttributesFields), signed_word, end};
constexpr FieldDescriptor kReadReplyFields[] = {word, buffer, byte_field, signed_word, end};
constexpr FieldDescriptor kWriteReplyFields[] = {word, signed_word, end};
constexpr FieldDescriptor kReaddirReplyFields[] = {through_pointer(kDirEntryNodeFields), signed_word, byte_field,
                                                   signed_word, end};
constexpr FieldDescriptor kFsstatReplyFields[] = {inline_record(kFsUsageFields), signed_word, end};

const OperationTables kOperations[kOperationCodes] = {
    {kNullRequestFields, 4, kStatusReplyFields, 4},       // 0 null
    {kMountRequestFields, 8, kMountReplyFields, 12},      // 1 mount
    {kGetattrRequestFields, 12, kGetattrReplyFields, 20}, // 2 getattr
    {nullptr, 0, nullptr, 0},                             // 3
    {kLookupRequestFields, 16, kLookupReplyFields, 28},   // 4 lookup
    {kReadRequestFields, 20, kReadReplyFields, 20},       // 5 read
    {kWriteRequestFields, 28, kWriteReplyFields, 8},      // 6 write (+ count)
    {kLookupRequestFields, 16, kLookupReplyFields, 28},   // 7 create
    {kPathRequestFields, 8, kStatusReplyFields, 4},       // 8 remove
    {kRenameRequestFields, 12, kStatusReplyFields, 4},    // 9 rename
    {kLookupRequestFields, 16, kLookupReplyFields, 28},   // 10 mkdir
    {kPathRequestFields, 8, kStatusReplyFields, 4},       // 11 rmdir
    {kReaddirRequestFields, 20, kReaddirReplyFields, 16}, // 12 readdir
    {kPathRequestFields, 8, kFsstatReplyFields, 20},      // 13 fsstat
    {nullptr, 0, nullptr, 0},                             // 14
    {kMkfsRequestFields, 24, kStatusReplyFields, 4},      // 15 mkfs
};

// The host records hold exactly what their tables walk (the read and
// readdir replies three pad bytes more), and in a 32-bit build's terms
// every record fits the size the operations pass.
static_assert(host_size(kDirEntryNodeFields) == sizeof(DirEntryNode));
static_assert(host_size(kMountRequestFields) == sizeof(MountRequest));
static_assert(host_size(kLookupRequestFields) == sizeof(LookupRequest));
static_assert(host_size(kWriteRequestFields) == sizeof(WriteRequest));
static_assert(host_size(kRenameRequestFields) == sizeof(RenameRequest));
static_assert(host_size(kMkfsRequestFields) == sizeof(MkfsRequest));
static_assert(host_size(kMountReplyFields) == sizeof(MountReply));
static_assert(host_size(kLookupReplyFields) == sizeof(LookupReply));
static_assert(host_size(kReadReplyFields) + 3 == sizeof(ReadReply));
static_assert(host_size(kReaddirReplyFields) + 3 == sizeof(ReaddirReply));
static_assert(host_size(kFsstatReplyFields) == sizeof(FsstatReply));
static_assert(wire_size(kLookupRequestFields) == 16 && wire_size(kLookupReplyFields) == 28);
static_assert(wire_size(kReadReplyFields) == 17 && wire_size(kReaddirReplyFields) == 13);
static_assert(wire_size(kMkfsRequestFields) == 24 && wire_size(kWriteRequestFields) == 28);

void free_nodes(DirEntryNode* head) {
    while (head != nullptr) {
        DirEntryNode* next = head->next;
        std::free(head);
        head = next;
    }
}

} // namespace vukra::remotefs
