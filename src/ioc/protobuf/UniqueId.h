#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>

// Names of objects that are the same in every event of this host: 64 lower-case hexadecimal digits. They are made of
// the bytes as they are, also where a text is repaired before it is told.
//
// Each thread that asks remembers the ids of 1,024 texts of up to 512 bytes.
namespace zagent::ioc::internal::protobuf {

// SHA-256 of the parts, joined by NUL bytes.
std::string UniqueId(std::initializer_list<std::string_view> parts);

// Of a file or directory, also of a program as a file.
std::string UniquePathId(std::string_view path);

// Of a process: `creation_time` in nanoseconds since the epoch tells it from a later one with its pid.
std::string UniqueProcessId(std::int32_t pid, std::int64_t creation_time, std::string_view image_path);

// Frees what the calling thread remembers.
void ForgetUniqueIds();

}  // namespace zagent::ioc::internal::protobuf
