// SPDX-License-Identifier: LGPL-2.1-or-later
#include "disk/disk_readers.h"

#include <cjson/cJSON.h>
#include <fcntl.h>
#include <linux/hdreg.h>
#include <unistd.h>

#include <array>
#include <cctype>
#include <climits>
#include <cstddef>
#include <cstring>
#include <memory>

#include "disk/logical_volume.h"
#include "disk/root_device.h"
#include "disk/text_lines.h"
#include "foundation/fileutil.h"
#include "foundation/os.h"
#include "tavro-quenda.h"

namespace tq {
namespace {

constexpr char kSmartctl[] = "/usr/sbin/smartctl";
constexpr char kLsblk[] = "/usr/bin/lsblk";
constexpr char kBootDeviceCid[] = "/proc/bootdevice/cid";

// Where the ATA identify block keeps the two texts (struct hd_driveid).
constexpr size_t kIdentifySize = 512;
constexpr size_t kSerialOffset = 20, kSerialSize = 20;
constexpr size_t kModelOffset = 54, kModelSize = 40;
// The kernel fills 512 bytes whatever the machine; the offsets are the
// block's own, and the header's struct must agree on every architecture.
static_assert(sizeof(struct hd_driveid) == kIdentifySize);
static_assert(offsetof(struct hd_driveid, serial_no) == kSerialOffset &&
              sizeof(hd_driveid::serial_no) == kSerialSize);
static_assert(offsetof(struct hd_driveid, model) == kModelOffset && sizeof(hd_driveid::model) == kModelSize);

// Each half of a smartctl or logical-volume value is kept to 510 bytes.
constexpr size_t kValueMax = 510;
constexpr size_t kLineBuffer = 1024;
constexpr size_t kLsblkReadMax = 16383;
constexpr size_t kNvmeModelMax = 7;

bool is_graphic(char c) { return std::isgraph(static_cast<unsigned char>(c)) != 0; }

std::string graphic_only(std::string_view bytes)
{
    std::string out;
    for (char c : bytes) {
        if (is_graphic(c))
            out += c;
    }
    return out;
}

struct JsonDeleter {
    void operator()(cJSON *tree) const noexcept { cJSON_Delete(tree); }
};

const char *or_null_text(const char *text) { return text ? text : "(null)"; }

bool contains_any(const char *text, std::initializer_list<const char *> words)
{
    for (const char *word : words) {
        if (std::strstr(text, word))
            return true;
    }
    return false;
}

// At most 510 bytes of piece, without blanks and line feeds.
std::string smartctl_value(const char *piece)
{
    std::string value(cut(piece, kValueMax));
    removeSpaces(value.data());
    value.resize(std::strlen(value.c_str()));
    return value;
}

} // namespace

std::optional<std::string> helper_output(std::initializer_list<std::string> argv)
{
    std::vector<const char *> args;
    for (const std::string &arg : argv)
        args.push_back(arg.c_str());
    args.push_back(nullptr);
    os::Child child = os::spawn(args.data());
    if (!child.started)
        return std::nullopt;
    return std::move(child.out);
}

bool is_device_mapper_path(std::string_view path) noexcept { return path.substr(0, 11) == "/dev/mapper"; }

int is_whole_disk(const char *path) noexcept { return path ? os::probe_is_whole_disk(path) : 0; }

std::optional<std::string> harddisk_id(const char *path)
{
    char resolved[PATH_MAX];
    if (!path || !os::realpath(path, resolved))
        return std::nullopt;
    if (is_device_mapper_path(path)) {
        std::optional<std::string> node = dm_physical_disk_node(resolved);
        // A mapping straight on an unpartitioned disk answers the disk's node
        // itself; callers rely on that.
        if (node && is_whole_disk(node->c_str()))
            return node;
        if (node && base_name(*node).substr(0, 4) == "nvme")
            return harddisk_id_sysfs(base_name(*node));
    }
    if (!is_block_device(resolved))
        return std::nullopt;
    std::string_view base = base_name(resolved);
    if (base.substr(0, 4) == "nvme")
        return harddisk_id_sysfs(base);
    return harddisk_id_ata_identity(path);
}

std::optional<std::string> harddisk_id_ata_identity(std::string_view path)
{
    // The base name under /dev: a by-uuid link turns into a node that does not
    // exist, which leaves the disk to smartctl.
    std::string device = "/dev/" + std::string(base_name(path));
    quenda_trace("device :%s", device.c_str());
    // A block device (or a recorded stand-in), never a FIFO or character device.
    UniqueFD fd = os::open_input(device.c_str(), os::InputKind::regular_or_block);
    if (!fd) {
        quenda_trace("fd < 0, return");
        return std::nullopt;
    }
    std::array<unsigned char, kIdentifySize> id{};
    if (os::ioctl(fd.get(), HDIO_GET_IDENTITY, id.data()) != 0) {
        quenda_trace("ioctl(fd, HDIO_GET_IDENTITY, &id), return");
        return std::nullopt;
    }
    return ata_identity_from_block({reinterpret_cast<const char *>(id.data()), id.size()});
}

std::string ata_identity_from_block(std::string_view block)
{
    std::string padded(block.substr(0, kIdentifySize));
    padded.resize(kIdentifySize, '\0');
    std::string serial = graphic_only(std::string_view(padded).substr(kSerialOffset, kSerialSize));
    std::string model = graphic_only(std::string_view(padded).substr(kModelOffset, kModelSize));
    return model + "_" + serial;
}

std::string clean_sysfs_attribute(std::string_view raw, size_t capacity)
{
    std::string text(up_to_nul(raw));
    // Trailing blanks and line ends go; the first byte is left to the copy below.
    while (text.size() > 1 && !is_graphic(text.back()))
        text.pop_back();
    std::string out;
    bool in_word = false;
    for (char c : text) {
        if (capacity == 0 || out.size() >= capacity - 1)
            break;
        if (is_graphic(c)) {
            out += c;
            in_word = true;
        } else if (in_word) {
            out += '-';
            in_word = false;
        }
    }
    return out;
}

std::optional<std::string> read_sysfs_block_attribute(std::string_view disk, std::string_view attribute,
                                                      size_t capacity)
{
    if (disk.empty() || attribute.empty())
        return std::nullopt;
    std::string path = "/sys/block/" + std::string(disk) + "/device/" + std::string(attribute);
    std::string raw;
    if (!os::read_input_prefix(path.c_str(), kLineBuffer, &raw) || raw.empty())
        return std::nullopt;
    return clean_sysfs_attribute(raw, capacity);
}

std::optional<std::string> harddisk_id_sysfs(std::string_view name)
{
    std::string wanted(name);
    std::string disk;
    {
        os::UniqueDir dir = os::opendir("/sys/block");
        if (!dir) {
            quenda_trace("(!dp) return");
            return std::nullopt;
        }
        // The first entry that is a prefix of the name, in directory order:
        // nvme0n1 for nvme0n1p2.
        while (struct dirent *entry = ::readdir(dir.get())) {
            size_t len = std::strlen(entry->d_name);
            if (std::strncmp(entry->d_name, wanted.c_str(), len) == 0) {
                disk = entry->d_name;
                break;
            }
        }
    }
    std::optional<std::string> model = read_sysfs_block_attribute(disk, "model", kLineBuffer);
    if (!model)
        return std::nullopt;
    std::optional<std::string> serial = read_sysfs_block_attribute(disk, "serial", kLineBuffer);
    if (!serial)
        return std::nullopt;
    return *model + "_" + *serial;
}

std::optional<std::string> lsblk_find_model_serial(const cJSON *tree, std::string_view name)
{
    const cJSON *devices = cJSON_GetObjectItemCaseSensitive(tree, "blockdevices");
    if (!devices) {
        quenda_trace("Key 'blockdevices' does not exist.\n");
        return std::nullopt;
    }
    std::string wanted(name);
    const cJSON *device;
    // Top level only: the disks, not their partitions.
    cJSON_ArrayForEach(device, devices)
    {
        const char *device_name = cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(device, "name"));
        quenda_trace("current name '%s', dev_name '%s'", or_null_text(device_name), wanted.c_str());
        if (!device_name || base_name(device_name) != name)
            continue;

        // The model is traced with the serial's wording, as it always was.
        auto text_item = [&](const char *key, const char *null_trace) -> const char * {
            const cJSON *item = cJSON_GetObjectItemCaseSensitive(device, key);
            if (!cJSON_IsString(item)) {
                quenda_trace("Serial for device '%s' is not a string or is NULL.\n", wanted.c_str());
                return nullptr;
            }
            if (!item->valuestring) {
                quenda_trace("%s", null_trace);
                return nullptr;
            }
            quenda_trace("Serial for device '%s': %s\n", wanted.c_str(), item->valuestring);
            return item->valuestring;
        };
        const char *serial = text_item("serial", "serial is NULL");
        if (!serial)
            return std::nullopt;
        const char *model = text_item("model", "model is NULL");
        if (!model)
            return std::nullopt;

        // One "-" for each blank, no collapsing, unlike the sysfs reader.
        auto dashed = [](const char *text) {
            std::string out(cut(text, kLineBuffer - 1));
            for (char &c : out) {
                if (!is_graphic(c))
                    c = '-';
            }
            return out;
        };
        std::string identity = dashed(model) + "_" + dashed(serial);
        if (identity.size() > kLineBuffer - 1)
            identity.resize(kLineBuffer - 1);
        return identity;
    }
    return std::nullopt;
}

std::optional<std::string> lsblk_identity_from_json(const std::string &json, std::string_view name)
{
    std::unique_ptr<cJSON, JsonDeleter> tree(cJSON_Parse(json.c_str()));
    if (!tree) {
        quenda_trace("Failed to parse JSON");
        return std::nullopt;
    }
    std::unique_ptr<char, FreeDeleter> printed(cJSON_Print(tree.get()));
    if (!printed) {
        quenda_trace("Failed to print JSON");
        return std::nullopt;
    }
    return lsblk_find_model_serial(tree.get(), name);
}

std::optional<std::string> harddisk_id_lsblk(std::string name)
{
    if (os::access(kLsblk, R_OK | X_OK) != 0)
        return std::nullopt;
    std::optional<std::string> out = helper_output({kLsblk, "-Jp", "-o", "name,serial,model"});
    if (!out)
        return std::nullopt;
    // Only the start of the output counts, as one 16383-byte read took it.
    return lsblk_identity_from_json(std::string(cut(*out, kLsblkReadMax)), name);
}

std::optional<std::string> parse_smartctl_identity(std::string_view report)
{
    std::string model, serial;
    for_each_fgets_line(report, kLineBuffer, [&](std::string_view chunk) {
        char line[kLineBuffer] = {};
        std::memcpy(line, chunk.data(), chunk.size());
        char *save = nullptr;
        // "Model Family:" and "Device Model:" both match; the later line decides.
        // Splitting leaves only the first piece of the line for the serial test.
        if (contains_any(line, {"Model", "product", "Product", "Device Model", "Model Number"})) {
            for (char *piece = strtok_r(line, ":", &save); piece; piece = strtok_r(nullptr, ":", &save)) {
                if (!contains_any(piece, {"Model", "product", "Product", "Device Model", "Model Number"}))
                    model = smartctl_value(piece);
            }
        }
        if (contains_any(line, {"Serial Number", "Serial number", "serial number", "serial"})) {
            for (char *piece = strtok_r(line, ":", &save); piece; piece = strtok_r(nullptr, ":", &save)) {
                if (!contains_any(piece, {"Serial Number", "Serial number", "serial number", "serial"}))
                    serial = smartctl_value(piece);
            }
        }
    });
    if (model.empty() || serial.empty())
        return std::nullopt;
    return model + "_" + serial;
}

std::optional<std::string> harddisk_id_smartctl(const char *path)
{
    char resolved[PATH_MAX];
    if (!path || os::access(kSmartctl, R_OK | X_OK) != 0 || !os::realpath(path, resolved) ||
        !is_block_device(resolved))
        return std::nullopt;
    std::optional<std::string> report = helper_output({kSmartctl, "-i", os::host_path(resolved)});
    if (!report)
        return std::nullopt;
    return parse_smartctl_identity(*report);
}

std::optional<std::string> harddisk_id_nvme_new(const char *name)
{
    if (!name)
        return std::nullopt;
    // The start of the model attribute, read in-process: seven characters of
    // its first line, as fgets() with a size of 8 gives them, are all that is
    // wanted. An unreadable attribute is an empty answer.
    std::string path = "/sys/block/" + std::string(name) + "/device/model";
    std::string start;
    if (!os::read_input_prefix(path.c_str(), kNvmeModelMax, &start, std::string_view("\n\0", 2)))
        start.clear();
    std::string model(up_to_nul(start));
    if (!start.empty())
        quenda_trace("harddisk_id_nvme_new model = %s", model.c_str());
    else
        quenda_trace("harddisk_id_nvme_new model = NULL");
    return model;
}

std::optional<std::string> boot_device_cid() { return read_fact_file(kBootDeviceCid); }

std::optional<std::string> optical_drive_hwinfo()
{
    std::optional<std::array<std::string, 3>> info = os::optical_drive_hwinfo();
    if (!info)
        return std::nullopt;
    std::string text = (*info)[0] + " " + (*info)[1] + " " + (*info)[2];
    if (text.size() > kLineBuffer - 1)
        text.resize(kLineBuffer - 1);
    return text;
}

} // namespace tq

extern "C" {

char *harddisk_id(const char *path) noexcept
{
    return tq::guarded<char *>(nullptr, [&] { return tq::dup_optional(tq::harddisk_id(path)); });
}

char *harddisk_id_smartctl(const char *path) noexcept
{
    return tq::guarded<char *>(nullptr, [&] { return tq::dup_optional(tq::harddisk_id_smartctl(path)); });
}

char *harddisk_id_nvme_new(const char *name) noexcept
{
    return tq::guarded<char *>(nullptr, [&] { return tq::dup_optional(tq::harddisk_id_nvme_new(name)); });
}

} // extern "C"
