// SPDX-License-Identifier: LGPL-2.1-or-later
#include "disk/root_device.h"

#include <cjson/cJSON.h>
#include <mntent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "disk/text_lines.h"
#include "foundation/os.h"
#include "foundation/strutil.h"
#include "tavro-quenda.h"

namespace tq {
namespace {

// Results built from a "root=" word are kept to what a 4096-byte buffer holds.
constexpr size_t kPathTextMax = 4095;

constexpr char kMounts[] = "/proc/mounts";
constexpr char kCommandLine[] = "/proc/cmdline";
// Far beyond the longest kernel command line any architecture allows.
constexpr size_t kCommandLineMax = 1024 * 1024;
// Where lsblk is looked for, in this order; never through PATH.
constexpr const char *kLsblkPaths[] = {"/usr/bin/lsblk", "/bin/lsblk"};

struct JsonDeleter {
    void operator()(cJSON *tree) const noexcept { cJSON_Delete(tree); }
};
using Json = std::unique_ptr<cJSON, JsonDeleter>;

// The child is mounted on "/": lsblk prints "mountpoint" in older releases and
// a "mountpoints" array from util-linux 2.37 on.
bool mounted_on_root(const cJSON *child)
{
    const char *single = cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(child, "mountpoint"));
    if (single && std::strcmp(single, "/") == 0)
        return true;
    const cJSON *many = cJSON_GetObjectItemCaseSensitive(child, "mountpoints");
    if (!cJSON_IsArray(many))
        return false;
    const cJSON *point;
    cJSON_ArrayForEach(point, many)
    {
        const char *text = cJSON_GetStringValue(point);
        if (text && std::strcmp(text, "/") == 0)
            return true;
    }
    return false;
}

} // namespace

int is_block_device(const char *path) noexcept
{
    if (!path) {
        quenda_trace("!dev_name return");
        return 0;
    }
    struct stat sb;
    if (os::stat(path, &sb) != 0) {
        quenda_trace("!stat(dev_name, &sb) return");
        return 0;
    }
    return S_ISBLK(sb.st_mode) ? 1 : 0;
}

std::optional<std::string> root_mount_source(std::string_view text)
{
    if (text.empty())
        return std::nullopt;
    // getmntent_r() over a memory copy decodes the table exactly as it does /proc/mounts.
    std::string copy(text);
    std::unique_ptr<FILE, os::FileCloser> table(::fmemopen(copy.data(), copy.size(), "r"));
    if (!table)
        return std::nullopt;
    struct mntent entry;
    char buf[8192];
    while (::getmntent_r(table.get(), &entry, buf, sizeof(buf))) {
        if (entry.mnt_dir && entry.mnt_fsname && std::strcmp(entry.mnt_dir, "/") == 0 &&
            std::strcmp(entry.mnt_fsname, "rootfs") != 0)
            return std::string(entry.mnt_fsname);
    }
    return std::nullopt;
}

std::optional<std::string> root_device_from_mounts()
{
    if (file_stat(kMounts, 0400) == 0)
        return std::nullopt;
    os::UniqueFile table = os::fopen(kMounts, "r");
    std::string text;
    if (!table || !read_all(table.get(), text))
        return std::nullopt;
    return root_mount_source(text);
}

std::optional<std::string> find_root_argument(std::string_view line)
{
    for (std::string_view word : split_tokens(line, " \t")) {
        if (word.substr(0, 5) == "root=")
            return std::string(word);
    }
    return std::nullopt;
}

std::string replace_all(std::string_view source, std::string_view replacement, std::string_view needle)
{
    if (needle.empty())
        return std::string(source);
    std::string out;
    size_t pos = 0;
    for (size_t hit; (hit = source.find(needle, pos)) != std::string_view::npos; pos = hit + needle.size()) {
        out.append(source.substr(pos, hit - pos));
        out.append(replacement);
    }
    out.append(source.substr(pos));
    return out;
}

std::optional<std::string> resolve_root_spec(std::string_view word)
{
    // strtok() semantics on purpose: only the text up to the next "=" of a
    // UUID or label counts, and PARTUUID= is answered as the bare tag, which
    // is no block device.
    std::vector<std::string_view> parts = split_tokens(word, "=");
    if (parts.size() < 2)
        return std::nullopt;
    std::string answer;
    if (parts[1] == "UUID") {
        if (parts.size() < 3)
            return std::nullopt;
        answer = "/dev/disk/by-uuid/" + std::string(parts[2]);
    } else if (parts[1] == "LABEL") {
        if (parts.size() < 3)
            return std::nullopt;
        // udev escapes "/" in link names.
        answer = "/dev/disk/by-label/" + replace_all(parts[2], "\\x2f", "/");
    } else {
        answer = std::string(parts[1]);
    }
    if (answer.size() > kPathTextMax)
        answer.resize(kPathTextMax);
    return answer;
}

std::optional<std::string> root_device_from_command_line(std::string_view text)
{
    std::string_view line = up_to_nul(text);
    line = line.substr(0, line.find('\n'));
    std::optional<std::string> word = find_root_argument(line);
    if (!word)
        return std::nullopt;
    return resolve_root_spec(*word);
}

std::optional<std::string> read_first_line(const char *path)
{
    // Only the first line counts, and a zero byte ends it as well: reading
    // stops there, so a huge file costs no more than its first line. A line
    // longer than any kernel's command line is no command line.
    std::string text;
    if (!os::read_input_prefix(path, kCommandLineMax + 1, &text, std::string_view("\n\0", 2)))
        return std::nullopt;
    std::string_view line = up_to_nul(text);
    line = line.substr(0, line.find('\n'));
    if (line.size() > kCommandLineMax)
        return std::nullopt;
    return std::string(line);
}

std::optional<std::string> command_line_get_root_device_name(const char *path)
{
    if (!path)
        return std::nullopt;
    std::optional<std::string> line = read_first_line(path);
    if (!line)
        return std::nullopt;
    return root_device_from_command_line(*line);
}

std::optional<std::string> root_device()
{
    std::optional<std::string> device = root_device_from_mounts();
    if (device && is_block_device(device->c_str())) {
        quenda_trace("root_dev_name: %s.", device->c_str());
        return device;
    }
    // A mount source such as /dev/root or none has no node: ask the kernel command line.
    device = command_line_get_root_device_name(kCommandLine);
    if (device && is_block_device(device->c_str()))
        return device;
    return std::nullopt;
}

std::optional<std::string> find_root_disk(std::string_view json)
{
    // A parsed tree costs tens of times its text, so text larger than any
    // real lsblk output is refused before parsing, as unreadable output is.
    json = up_to_nul(json);
    if (json.size() > kLsblkJsonMax)
        return std::nullopt;
    Json tree(cJSON_ParseWithLength(json.data(), json.size()));
    if (!tree) {
        if (const char *where = cJSON_GetErrorPtr())
            std::fprintf(stderr, "JSON parse error: %s\n", where);
        return std::nullopt;
    }
    const cJSON *disks = cJSON_GetObjectItemCaseSensitive(tree.get(), "blockdevices");
    if (!cJSON_IsArray(disks)) {
        std::fprintf(stderr, "Invalid JSON structure: blockdevices is not an array\n");
        return std::nullopt;
    }
    // One level of children only: a root on a whole disk, or on a volume
    // inside a partition, is not this function's answer.
    const cJSON *disk;
    cJSON_ArrayForEach(disk, disks)
    {
        const cJSON *children = cJSON_GetObjectItemCaseSensitive(disk, "children");
        if (!cJSON_IsArray(children))
            continue;
        const cJSON *child;
        cJSON_ArrayForEach(child, children)
        {
            const char *name = cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(disk, "name"));
            if (mounted_on_root(child) && name)
                return std::string(name);
        }
    }
    return std::nullopt;
}

std::optional<std::string> get_lsblk_output()
{
    const char *lsblk = nullptr;
    for (const char *path : kLsblkPaths) {
        if (!lsblk && os::access(path, X_OK) == 0)
            lsblk = path;
    }
    std::optional<std::string> out;
    if (lsblk)
        out = helper_output({lsblk, "-J"});
    else
        errno = ENOENT;
    if (!out) {
        std::perror("Failed to run lsblk");
        return std::nullopt;
    }
    // All of it: machines with many disks print far more than a page.
    return out;
}

} // namespace tq

extern "C" {

char *root_device(void) noexcept
{
    return tq::guarded<char *>(nullptr, [] { return tq::dup_optional(tq::root_device()); });
}

char *command_line_get_root_device_name(const char *path) noexcept
{
    return tq::guarded<char *>(nullptr, [&] { return tq::dup_optional(tq::command_line_get_root_device_name(path)); });
}

char *get_lsblk_output(void) noexcept
{
    return tq::guarded<char *>(nullptr, [] { return tq::dup_optional(tq::get_lsblk_output()); });
}

char *find_root_disk(const char *json) noexcept
{
    if (!json)
        return nullptr;
    // Past the cap the length alone decides: the rest is never read.
    return tq::guarded<char *>(nullptr, [&] {
        return tq::dup_optional(tq::find_root_disk(std::string_view(json, ::strnlen(json, tq::kLsblkJsonMax + 1))));
    });
}

} // extern "C"
