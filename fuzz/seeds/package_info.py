#!/usr/bin/env python3
"""Writes the seed corpus of the package info fuzz target (primary manifest texts) into the
directory given (created if needed). The package beside each manifest holds only "a.raw"."""
import pathlib
import sys


def manifest(files, version='1'):
    return ('<Manifest><Platform>0</Platform>' + files + '<Version>' + version +
            '</Version><MinorVersion>3</MinorVersion><Type>0</Type></Manifest>')


def raw_only(path):
    return manifest('<File><RawPath>' + path + '</RawPath></File>')


FULL_FILE = (
    '<File><RawPath>a.raw</RawPath>'
    '<SettingsPath>Quillmarsh/Settings1680/a.raw.xmp</SettingsPath>'
    '<ProxyPath>Quillmarsh/Cache/Proxies/a.raw.jpg</ProxyPath>'
    '<LCCs><LCCPath LccID="L1">Quillmarsh/Settings1680/a.raw.L1.lcc</LCCPath>'
    '<LCCPath LccID="L2">Quillmarsh/Settings1680/a.raw.L2.lcc</LCCPath></LCCs>'
    '<ICCs><ICCPath IccID="sRGB">Quillmarsh/Settings1680/a.raw.sRGB</ICCPath></ICCs>'
    '<QmMaskPath>Quillmarsh/Settings1680/a.raw.msk</QmMaskPath>'
    '<QmHairPath>Quillmarsh/Settings1680/a.raw.hair</QmHairPath>'
    '</File>'
)

SEEDS = {
    'raw_only': raw_only('a.raw'),
    'full': manifest(FULL_FILE),
    'full_formatted': '<?xml version="1.0" encoding="UTF-8"?>\r\n' + manifest(FULL_FILE).replace(
        '><', '>\n\t<'),
    'lower_case_tags': manifest('<file><rawpath>a.raw</rawpath><lccs><lccpath LccID="L1">'
                                'x.lcc</lccpath></lccs></file>'),
    'ten_files': manifest('<File><RawPath>a.raw</RawPath></File>' * 10),
    'eleven_files': manifest('<File><RawPath>a.raw</RawPath></File>' * 11),
    'no_file': manifest(''),
    'version_0': manifest(FULL_FILE, '0'),
    'version_2': manifest(FULL_FILE, '2'),
    'version_negative': manifest(FULL_FILE, '-1'),
    'version_text': manifest(FULL_FILE, 'one'),
    'version_missing': '<Manifest><File><RawPath>a.raw</RawPath></File></Manifest>',
    'deep': manifest('<File>' + '<d>' * 3000 + 'x' + '</d>' * 3000 + '</File>'),
    'deep_unclosed': '<Manifest>' + '<File>' * 3000,
    'entities': manifest('<File><RawPath>a&amp;b&#46;raw</RawPath><LCCs>'
                         '<LCCPath LccID="L1&quot;&lt;&#x41;">&lt;x&gt;.lcc</LCCPath></LCCs></File>'),
    'bad_entity': manifest('<File><RawPath>&bogus;</RawPath></File>'),
    'cdata': manifest('<File><RawPath><![CDATA[a.raw]]></RawPath></File>'),
    'backslash_paths': manifest(
        '<File><RawPath>a.raw</RawPath>'
        '<SettingsPath>Quillmarsh\\Settings1680\\a.raw.xmp</SettingsPath>'
        '<LCCs><LCCPath LccID="L1">Quillmarsh\\Settings1680\\a.raw.L1.lcc</LCCPath></LCCs></File>'),
    'huge_identifier': manifest('<File><RawPath>a.raw</RawPath><LCCs><LCCPath LccID="' +
                                'I' * 5000 + '">x.lcc</LCCPath></LCCs><ICCs><ICCPath IccID="' +
                                'J' * 259 + '">y.icc</ICCPath></ICCs></File>'),
    'huge_path': raw_only('p' * 259),
    'path_259': raw_only('p' * 258),
    'many_profiles': manifest('<File><RawPath>a.raw</RawPath><LCCs>' + ''.join(
        f'<LCCPath LccID="L{i}">l{i}.lcc</LCCPath>' for i in range(300)) + '</LCCs></File>'),
    'empty_profiles': manifest('<File><RawPath>a.raw</RawPath><LCCs><LCCPath/>'
                               '<LCCPath LccID=""></LCCPath></LCCs><ICCs/></File>'),
    'traversal_raw': raw_only('../x'),
    'traversal_nested': manifest('<File><RawPath>a.raw</RawPath><LCCs><LCCPath LccID="L1">'
                                 'a/../../x.lcc</LCCPath></LCCs></File>'),
    'absolute_raw': raw_only('/etc/passwd'),
    'absolute_backslash': raw_only('\\\\server\\share\\x'),
    'drive_raw': raw_only('C:x'),
    'drive_settings': manifest('<File><RawPath>a.raw</RawPath>'
                               '<SettingsPath>C:\\x.xmp</SettingsPath></File>'),
    'dot_paths': manifest('<File><RawPath>.</RawPath><SettingsPath>./</SettingsPath>'
                          '<ProxyPath>a/.</ProxyPath></File>'),
    'other_root': '<Other>' + raw_only('a.raw') + '</Other>',
    'unclosed': '<Manifest><File><RawPath>a.raw</RawPath>',
    'empty': '',
    'bom': '\ufeff' + raw_only('a.raw'),
}


def main():
    if len(sys.argv) != 2:
        sys.exit('usage: package_info.py OUTDIR')
    out = pathlib.Path(sys.argv[1])
    out.mkdir(parents=True, exist_ok=True)
    for name, text in SEEDS.items():
        (out / name).write_bytes(text.encode('utf-8'))
    # Bytes that are not UTF-8 in a path, and a NUL inside the text.
    (out / 'latin1_path').write_bytes(raw_only('\xe9.raw').encode('latin-1'))
    (out / 'embedded_nul').write_bytes(raw_only('a.raw').encode() + b'\0<File>')
    # Renders to more than a manifest buffer holds.
    (out / 'oversized').write_bytes(
        manifest('<File><RawPath>a.raw</RawPath><Pad>' + 'z' * 17000 + '</Pad></File>').encode())


if __name__ == '__main__':
    main()
