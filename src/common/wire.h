// Helpers for records that cross a socket or shared memory.
//
// Every such record is a packed struct laid out exactly as it travels, with
// static_asserts on its size and on the offsets of its fields. The camera and
// every peer are little-endian, and the records go on the wire as they lie in
// memory, so the host must be little-endian too.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "camgate records are little-endian on the wire");

#define CG_PACKED __attribute__((packed))

// Assert the size of a wire record and the offset of one of its fields.
#define CG_SIZE(type, size) static_assert(sizeof(type) == (size), #type " has the wrong size")
#define CG_OFFSET(type, field, off) static_assert(offsetof(type, field) == (off), #type "." #field " is at the wrong offset")

// Copy the C string src into the fixed field dst of dst_size bytes: at most
// dst_size - 1 bytes are copied, the rest of the field is zero-filled, so the
// field is always terminated. A null src gives an empty field.
inline void wire_copy_str(char *dst, size_t dst_size, const char *src)
{
    if (dst_size == 0) return;
    size_t n = 0;
    if (src != nullptr) {
        while (n + 1 < dst_size && src[n] != '\0') ++n;
        std::memcpy(dst, src, n);
    }
    std::memset(dst + n, 0, dst_size - n);
}

// Same for a field given as an array: wire_set_str(rec.name, "x").
template <size_t N>
inline void wire_set_str(char (&dst)[N], const char *src)
{
    wire_copy_str(dst, N, src);
}
template <size_t N>
inline void wire_set_str(unsigned char (&dst)[N], const char *src)
{
    wire_copy_str(reinterpret_cast<char *>(dst), N, src);
}

// Length of the text in a fixed field that may lack its terminator.
inline size_t wire_str_len(const char *field, size_t field_size)
{
    const void *nul = std::memchr(field, '\0', field_size);
    return nul ? static_cast<size_t>(static_cast<const char *>(nul) - field) : field_size;
}

// Copy a fixed field that may lack its terminator into dst (dst_size bytes),
// always terminated: wire_get_str(buf, sizeof buf, rec.name, sizeof rec.name).
inline void wire_get_str(char *dst, size_t dst_size, const char *field, size_t field_size)
{
    if (dst_size == 0) return;
    size_t n = wire_str_len(field, field_size);
    if (n > dst_size - 1) n = dst_size - 1;
    std::memcpy(dst, field, n);
    dst[n] = '\0';
}
