// Zip files that other tools write or that attackers craft, each made at test time by the
// tests' one zip writer: read by the zip reading tests and written as the seed corpus of the
// archive fuzz target.
#pragma once

#include "common/raw_zip.hpp"

#include <cstdint>
#include <initializer_list>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace qobtest::fixtures {

// The last end record declares a comment longer than the bytes left; an earlier end record,
// whose comment does fit, describes another archive hidden in front. Other readers show the
// last: "FILE" holding "P". The hidden one holds "file" with "data".
inline std::string HiddenEndRecord() {
    RawZip hidden;
    hidden.Add("file", "data");
    std::string front = hidden.Finish();
    RawZip last;
    last.Prefix(front, true);
    last.Add("FILE", "P");
    last.Comment("", 100);
    std::string bytes = last.Finish();
    // The hidden record's comment runs exactly to the end of the file.
    const std::size_t remaining = bytes.size() - front.size();
    bytes[front.size() - 2] = static_cast<char>(remaining & 0xFF);
    bytes[front.size() - 1] = static_cast<char>(remaining >> 8);
    return bytes;
}

// A real comment holding the end record's signature, followed by text: still a comment.
inline std::string CommentWithSignature() {
    RawZip zip;
    zip.Add("a.txt", "kept");
    zip.Comment(
        std::string("made by a tool that quotes PK\x05\x06 in its comment, then more text"));
    return zip.Finish();
}

// 140 bytes or so whose directory claims 0xFFFFFFFF bytes.
inline std::string ClaimedHugeStored() {
    RawZip zip;
    zip.Claim(zip.Add("big", "tiny"), 0xFFFFFFFFu, 0xFFFFFFFFu, true);
    return zip.Finish();
}

inline std::string ClaimedHugeDeflated() {
    RawZip zip;
    const std::size_t at = zip.Add("big", "tiny tiny tiny", 8);
    zip.Claim(at, zip.Records()[at].stored, 0xFFFFFFFFu);
    return zip.Finish();
}

// Names with "\" as the separator, as some Windows tools write them.
inline std::string BackslashNames() {
    RawZip zip;
    zip.Add("a\\b\\c", "abc");
    zip.Add("dir\\file.txt", "in dir");
    return zip.Finish();
}

// Two stored names that are one name once "\" reads as "/".
inline std::string CollidingNames() {
    RawZip zip;
    zip.Add("a\\b", "one");
    zip.Add("a/b", "two");
    zip.Add("c.txt", "unaffected");
    return zip.Finish();
}

// Names without the UTF-8 flag: code page 437, with and without a Unicode Path field.
inline std::string Cp437Names() {
    RawZip zip;
    zip.Add("\x80\x81.txt", "cp437");           // "Çü.txt"
    zip.Add("na\x8bve \xa0.txt", "more cp437"); // "naïve á.txt"
    const std::string stored = "\x8e.txt";      // "Ä.txt" in code page 437
    RawZip::Options unicode;
    unicode.extra = UnicodePathBlock(stored, "\xe6\x97\xa5\xe6\x9c\xac.txt"); // "日本.txt"
    zip.Add(stored, "unicode path", 0, unicode);
    RawZip::Options stale; // its CRC is not the stored name's
    stale.extra = UnicodePathBlock("\x99.txt", "other.txt", 0x12345678u);
    zip.Add("\x99.txt", "stale field", 0, stale); // "Ö.txt"
    zip.Add("\xc3\xa9.txt", "no flag");           // UTF-8 for "é", without the flag: "├⌐.txt"
    return zip.Finish();
}

// A name flagged UTF-8 that is not, beside a sound one.
inline std::string NotUtf8Flagged() {
    RawZip zip;
    RawZip::Options flagged;
    flagged.flags = 0x0800;
    zip.Add("good.txt", "good", 0, flagged);
    zip.Add("bad\xff.txt", "bad", 0, flagged);
    return zip.Finish();
}

// The second of three entries does not match its CRC-32.
inline std::string BadCrcInTheMiddle() {
    RawZip zip;
    zip.Add("a.txt", "first");
    const std::size_t bad = zip.Add("b.txt", "b");
    zip.Add("c.txt", "third");
    zip.ClaimCrc(bad, ZipCrc("x"));
    return zip.Finish();
}

// A self-extractor's stub in front: offsets count from the archive's start.
inline std::string StubInFront() {
    RawZip zip;
    zip.Prefix("MZ" + std::string(98, '\x90'), false);
    zip.Add("x.txt", "content behind a stub");
    zip.Add("y.txt", "and another");
    return zip.Finish();
}

// A deflated entry carrying Java's 4-byte 0xCAFE marker, whose value as our content size field
// (51966) is smaller than the entry and whose tail is zero.
inline std::string ForeignFourByteExtra() {
    RawZip zip;
    RawZip::Options java;
    java.extra = ExtraBlock(0xCAFE, "");
    zip.Add("jar.bin", std::string(51966, 'x') + std::string(8034, '\0'), 8, java);
    zip.Add("tail.bin", std::string(51966, 'y') + "not zero", 8, java);
    return zip.Finish();
}

// The local header names another entry than the central record.
inline std::string LocalNameDiffers() {
    RawZip zip;
    zip.Add("a.txt", "sound");
    RawZip::Options other;
    other.localName = "evil.txt";
    zip.Add("good.txt", "shown?", 0, other);
    return zip.Finish();
}

inline std::string Zip64Locator() {
    RawZip zip;
    zip.Add("a.txt", "a");
    zip.Zip64Locator();
    return zip.Finish();
}

inline std::string SplitOverDisks() {
    RawZip zip;
    zip.Add("a.txt", "a");
    zip.Disks(1, 1);
    return zip.Finish();
}

inline std::string Encrypted() {
    RawZip zip;
    RawZip::Options secret;
    secret.flags = 0x0001;
    zip.Add("secret.txt", "not really encrypted", 0, secret);
    return zip.Finish();
}

// Method 12 (bzip2), with bytes that are no bzip2 stream.
inline std::string Bzip2Method() {
    RawZip zip;
    zip.Add("b.bz2", "BZh9", 12);
    return zip.Finish();
}

// Exactly 65,535 entries: every count field is 0xFFFF, without being zip64.
inline std::string ManyEntries(std::size_t count = 65535) {
    RawZip zip;
    for (std::size_t i = 0; i < count; ++i) {
        zip.Add("e" + std::to_string(i), i + 1 == count ? "last" : "");
    }
    return zip.Finish();
}

} // namespace qobtest::fixtures

namespace qobtest {

// The archive fuzz target's seeds: ordinary zips of both methods, framed entries, and the
// hostile files above. (65,535 entries are left out: the target looks every entry up by
// name, which takes minutes there.)
inline std::vector<std::pair<std::string, std::string>> ArchiveSeeds() {
    namespace f = fixtures;
    const std::string text = [] {
        std::string manifest;
        for (int i = 0; i < 20; ++i) {
            manifest += "<Manifest><Version>1</Version></Manifest>\n";
        }
        return manifest;
    }();
    std::string bytes256;
    for (int i = 0; i < 256 * 8; ++i) {
        bytes256 += static_cast<char>(i & 0xFF);
    }
    const auto build = [](std::initializer_list<std::pair<std::string, std::string>> entries,
                          int method = 0) {
        RawZip zip;
        for (const auto& [name, content] : entries) {
            zip.Add(name, content, method);
        }
        return zip.Finish();
    };
    const std::string stored = build({{"manifest.xml", text}, {"Settings/a.xml", "<a/>"}});
    const std::string deflated = build({{"manifest.xml", text}, {"raw/image.raw", bytes256}}, 8);
    // Entries framed like the library's own: stored, zero padding, raw 4-byte size.
    RawZip padded;
    for (const auto& [name, content, padding] :
         {std::tuple<std::string, std::string, std::size_t>{"manifest.xml", text, 300},
          {"empty", "", 16},
          {"full", "full", 0}}) {
        RawZip::Options field;
        field.extra =
            ContentSizeField(padding > 0 ? static_cast<std::uint32_t>(content.size()) : 0);
        padded.Add(name, content + std::string(padding, '\0'), 0, field);
    }
    RawZip twins;
    twins.Add("MANIFEST.XML", "<not");
    twins.Add("manifest.xml", text);
    twins.Add("IMG_0001.CR3", "upper");
    RawZip shared = twins;
    twins.Add("img_0001.cr3", "lower");
    shared.Alias("img_0001.cr3", 0);
    RawZip lying; // a full size far beyond what its compressed data can hold
    lying.Add("manifest.xml", text, 8);
    const std::size_t raw = lying.Add("raw/image.raw", bytes256, 8);
    lying.Claim(raw, lying.Records()[raw].stored, 0xFFFFFF00u);
    RawZip bomb;
    bomb.AddDeflatedRun("manifest.xml", 8u << 20, std::string(1, '\0'));
    return {
        {"stored.zip", stored},
        {"deflated.zip", deflated},
        {"padded.zip", padded.Finish()},
        {"case_twins.zip", twins.Finish()},
        {"shared_local_record.zip", shared.Finish()},
        {"lying_size.zip", lying.Finish()},
        {"bomb.zip", bomb.Finish()},
        {"same_output.zip", build({{"a//b/./x.raw", "first"},
                                   {"a/b/x.raw", "second"},
                                   {"d", "file"},
                                   {"d/x.raw", "below a file"}})},
        {"traversal.zip", build({{"../evil.txt", "evil"},
                                 {"/abs", "abs"},
                                 {"C:x", "drive"},
                                 {"a/../../up.txt", "up"},
                                 {"dir\\back.txt", "back"}})},
        {"empty_archive.zip", RawZip().Finish()},
        {"empty_file.zip", ""},
        {"truncated.zip", deflated.substr(0, deflated.size() / 2)},
        {"no_end_record.zip", stored.substr(0, stored.size() - 22)},
        {"hidden_end_record.zip", f::HiddenEndRecord()},
        {"comment_with_signature.zip", f::CommentWithSignature()},
        {"claimed_huge_stored.zip", f::ClaimedHugeStored()},
        {"claimed_huge_deflated.zip", f::ClaimedHugeDeflated()},
        {"backslash_names.zip", f::BackslashNames()},
        {"colliding_names.zip", f::CollidingNames()},
        {"cp437_names.zip", f::Cp437Names()},
        {"not_utf8_flagged.zip", f::NotUtf8Flagged()},
        {"bad_crc_in_the_middle.zip", f::BadCrcInTheMiddle()},
        {"stub_in_front.zip", f::StubInFront()},
        {"foreign_four_byte_extra.zip", f::ForeignFourByteExtra()},
        {"local_name_differs.zip", f::LocalNameDiffers()},
        {"zip64_locator.zip", f::Zip64Locator()},
        {"split_over_disks.zip", f::SplitOverDisks()},
        {"encrypted.zip", f::Encrypted()},
        {"bzip2_method.zip", f::Bzip2Method()},
    };
}

} // namespace qobtest
