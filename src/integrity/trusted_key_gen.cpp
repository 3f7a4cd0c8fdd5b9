// SPDX-License-Identifier: LGPL-2.1-or-later
// Configure-time tool: reads the binary OpenPGP public key the library is to
// trust and writes a header with its bytes, fingerprint, long key ID and
// creation time, all taken from the key packet itself so nothing is typed by
// hand and no gpg is needed to build. A key that cannot encrypt is refused
// here, because gpg_encrypt could only ever fail with it.
//
//   tq_trusted_key_gen KEY_FILE OUTPUT_HEADER IS_DEVELOPMENT_KEY(0|1)
#include <openssl/evp.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace {

// Room for any key a distribution signs with: an RSA 4096 key with several
// user IDs and subkeys stays well below this.
constexpr size_t kMaxKeySize = 16384;
constexpr unsigned kSignatureTag = 2;
constexpr unsigned kPublicKeyTag = 6;
constexpr unsigned kPublicSubkeyTag = 14;

struct Packet {
    unsigned tag = 0;
    size_t body_offset = 0;
    size_t body_length = 0;
};

[[noreturn]] void fail(const std::string &why)
{
    std::fprintf(stderr, "tq_trusted_key_gen: %s\n", why.c_str());
    std::exit(1);
}

// The header of the packet at `start`, in either the old or the new format.
std::optional<Packet> packet_at(const std::vector<unsigned char> &key, size_t start)
{
    if (start + 2 > key.size() || !(key[start] & 0x80))
        return std::nullopt; // armoured text, or not OpenPGP at all
    Packet p;
    size_t pos = start + 1;
    auto need = [&](size_t n) { return pos + n <= key.size(); };
    if (key[start] & 0x40) {
        p.tag = key[start] & 0x3f;
        unsigned first = key[pos];
        if (first < 192) {
            p.body_length = first;
            pos += 1;
        } else if (first < 224) {
            if (!need(2))
                return std::nullopt;
            p.body_length = ((first - 192) << 8) + key[pos + 1] + 192;
            pos += 2;
        } else if (first == 255) {
            if (!need(5))
                return std::nullopt;
            p.body_length = (size_t{key[pos + 1]} << 24) | (size_t{key[pos + 2]} << 16) |
                            (size_t{key[pos + 3]} << 8) | key[pos + 4];
            pos += 5;
        } else {
            return std::nullopt; // partial lengths never occur in key packets
        }
    } else {
        p.tag = (key[start] >> 2) & 0x0f;
        switch (key[start] & 0x03) {
        case 0:
            p.body_length = key[pos];
            pos += 1;
            break;
        case 1:
            if (!need(2))
                return std::nullopt;
            p.body_length = (size_t{key[pos]} << 8) | key[pos + 1];
            pos += 2;
            break;
        case 2:
            if (!need(4))
                return std::nullopt;
            p.body_length = (size_t{key[pos]} << 24) | (size_t{key[pos + 1]} << 16) |
                            (size_t{key[pos + 2]} << 8) | key[pos + 3];
            pos += 4;
            break;
        default:
            return std::nullopt;
        }
    }
    p.body_offset = pos;
    if (p.body_length > key.size() - pos)
        return std::nullopt;
    return p;
}

// Public-key algorithms that can encrypt: RSA, RSA encrypt-only, Elgamal,
// ECDH, X25519, X448.
bool algorithm_can_encrypt(unsigned algorithm)
{
    return algorithm == 1 || algorithm == 2 || algorithm == 16 || algorithm == 18 || algorithm == 25 || algorithm == 26;
}

// The key-flags subpacket of a version 4 signature's hashed area, if any.
std::optional<unsigned> key_flags(const unsigned char *sig, size_t length)
{
    if (length < 6 || sig[0] != 4)
        return std::nullopt;
    size_t end = 6 + ((size_t{sig[4]} << 8) | sig[5]);
    if (end > length)
        return std::nullopt;
    for (size_t pos = 6; pos < end;) {
        size_t sub_length = sig[pos];
        if (sub_length < 192) {
            pos += 1;
        } else if (sub_length < 255 && pos + 1 < end) {
            sub_length = ((sub_length - 192) << 8) + sig[pos + 1] + 192;
            pos += 2;
        } else if (sub_length == 255 && pos + 4 < end) {
            sub_length = (size_t{sig[pos + 1]} << 24) | (size_t{sig[pos + 2]} << 16) | (size_t{sig[pos + 3]} << 8) |
                         sig[pos + 4];
            pos += 5;
        } else {
            return std::nullopt;
        }
        if (sub_length == 0 || sub_length > end - pos)
            return std::nullopt;
        if ((sig[pos] & 0x7f) == 27 && sub_length >= 2)
            return sig[pos + 1];
        pos += sub_length;
    }
    return std::nullopt;
}

// Whether the primary key or a subkey that is not revoked may encrypt: its
// algorithm can, and its latest self-signature, where it carries key flags,
// allows encrypting communications or storage.
bool can_encrypt(const std::vector<unsigned char> &key)
{
    struct Component {
        bool algorithm_ok = false, flags_ok = true, revoked = false;
    };
    std::vector<Component> components;
    for (size_t pos = 0; pos < key.size();) {
        std::optional<Packet> p = packet_at(key, pos);
        if (!p)
            break;
        const unsigned char *body = key.data() + p->body_offset;
        if (p->tag == kPublicKeyTag || p->tag == kPublicSubkeyTag) {
            components.push_back({p->body_length >= 6 && body[0] == 4 && algorithm_can_encrypt(body[5])});
        } else if (p->tag == kSignatureTag && !components.empty() && p->body_length >= 2) {
            Component &c = components.back();
            unsigned type = body[1];
            if (type == 0x20 || type == 0x28) {
                c.revoked = true;
            } else if ((type >= 0x10 && type <= 0x13) || type == 0x18 || type == 0x1f) {
                if (std::optional<unsigned> flags = key_flags(body, p->body_length))
                    c.flags_ok = (*flags & 0x0c) != 0;
            }
        }
        pos = p->body_offset + p->body_length;
    }
    for (const Component &c : components)
        if (c.algorithm_ok && c.flags_ok && !c.revoked)
            return true;
    return false;
}

std::string hex(const unsigned char *bytes, size_t n)
{
    static const char digits[] = "0123456789ABCDEF";
    std::string out;
    for (size_t i = 0; i < n; ++i) {
        out += digits[bytes[i] >> 4];
        out += digits[bytes[i] & 0x0f];
    }
    return out;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 4)
        fail("usage: tq_trusted_key_gen KEY_FILE OUTPUT_HEADER IS_DEVELOPMENT_KEY");
    const std::string key_path = argv[1];
    std::ifstream in(key_path, std::ios::binary);
    if (!in)
        fail("cannot read " + key_path);
    std::vector<unsigned char> key{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    if (key.empty() || key.size() > kMaxKeySize)
        fail(key_path + ": a trusted key must hold 1 to " + std::to_string(kMaxKeySize) + " bytes, this one holds " +
             std::to_string(key.size()));

    std::optional<Packet> packet = packet_at(key, 0);
    if (!packet)
        fail(key_path + ": not a binary OpenPGP key (export it without --armor)");
    if (packet->tag != kPublicKeyTag)
        fail(key_path + ": does not begin with a public-key packet");
    const unsigned char *body = key.data() + packet->body_offset;
    if (packet->body_length < 6 || body[0] != 4)
        fail(key_path + ": only version 4 keys are supported");
    if (packet->body_length > 0xffff)
        fail(key_path + ": key packet too long");
    if (!can_encrypt(key))
        fail(key_path + ": this key cannot encrypt (it is sign-only: neither the primary key nor a subkey may "
                        "encrypt), so gpg_encrypt would always fail; export a key that has an encryption subkey");

    // v4 fingerprint: SHA-1 over 0x99, the two-byte body length and the body.
    unsigned char prefix[3] = {0x99, static_cast<unsigned char>(packet->body_length >> 8),
                               static_cast<unsigned char>(packet->body_length & 0xff)};
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned digest_len = 0;
    EVP_MD_CTX *md = EVP_MD_CTX_new();
    bool ok = md && EVP_DigestInit_ex(md, EVP_sha1(), nullptr) == 1 &&
              EVP_DigestUpdate(md, prefix, sizeof(prefix)) == 1 &&
              EVP_DigestUpdate(md, body, packet->body_length) == 1 &&
              EVP_DigestFinal_ex(md, digest, &digest_len) == 1 && digest_len == 20;
    EVP_MD_CTX_free(md);
    if (!ok)
        fail("SHA-1 failed");
    const std::string fingerprint = hex(digest, 20);
    const std::string key_id = fingerprint.substr(24);
    const uint32_t created = (uint32_t{body[1]} << 24) | (uint32_t{body[2]} << 16) | (uint32_t{body[3]} << 8) | body[4];
    const bool development = std::string(argv[3]) == "1";

    std::ostringstream h;
    h << "// Generated at configure time from " << key_path << "; do not edit.\n"
      << "#pragma once\n\n#include <cstdint>\n\nnamespace tq::generated {\n\n"
      << "inline constexpr unsigned char kTrustedKeyData[" << kMaxKeySize << "] = {";
    for (size_t i = 0; i < key.size(); ++i)
        h << (i % 12 == 0 ? "\n    " : " ") << static_cast<unsigned>(key[i]) << ",";
    h << "\n};\n"
      << "inline constexpr uint32_t kTrustedKeyLength = " << key.size() << ";\n"
      << "inline constexpr char kTrustedKeyFingerprint[] = \"" << fingerprint << "\";\n"
      << "inline constexpr char kTrustedKeyId[] = \"" << key_id << "\";\n"
      << "inline constexpr int64_t kTrustedKeyCreated = " << created << ";\n"
      << "inline constexpr bool kTrustedKeyIsDevelopment = " << (development ? "true" : "false") << ";\n\n"
      << "} // namespace tq::generated\n";

    const std::string out_path = argv[2];
    const std::string tmp_path = out_path + ".tmp";
    {
        std::ofstream out(tmp_path, std::ios::binary | std::ios::trunc);
        out << h.str();
        if (!out)
            fail("cannot write " + tmp_path);
    }
    if (std::rename(tmp_path.c_str(), out_path.c_str()) != 0)
        fail("cannot write " + out_path);
    return 0;
}
