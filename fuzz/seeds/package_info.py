#!/usr/bin/env python3
"""Writes the seed corpus of the package info fuzz target (primary manifest texts) into the
directory given (created if needed). The package beside each manifest holds only "a.raw"."""
import pathlib
import sys

S = 'Quillmarsh/Settings1680/'


def manifest(files, version='1'):
    return ('<Manifest><Platform>0</Platform>' + files + '<Version>' + version +
            '</Version><MinorVersion>3</MinorVersion><Type>0</Type></Manifest>')


def raw(path='a.raw', rest=''):
    return manifest('<File><RawPath>' + path + '</RawPath>' + rest + '</File>')


def lccs(items):
    return '<LCCs>' + ''.join(f'<LCCPath LccID="{i}">{p}</LCCPath>' for i, p in items) + '</LCCs>'


FULL = (f'<File><RawPath>a.raw</RawPath><SettingsPath>{S}a.raw.xmp</SettingsPath>'
        '<ProxyPath>Quillmarsh/Cache/Proxies/a.raw.jpg</ProxyPath>' +
        lccs([('L1', S + 'a.raw.L1.lcc'), ('L2', S + 'a.raw.L2.lcc')]) +
        f'<ICCs><ICCPath IccID="sRGB">{S}a.raw.sRGB</ICCPath></ICCs>'
        f'<QmMaskPath>{S}a.raw.msk</QmMaskPath><QmHairPath>{S}a.raw.hair</QmHairPath></File>')

SEEDS = {
    'raw_only': raw(),
    'full': manifest(FULL),
    'full_formatted': '<?xml version="1.0" encoding="UTF-8"?>\r\n' +
                      manifest(FULL).replace('><', '>\n\t<'),
    'lower_case_tags': manifest('<file><rawpath>a.raw</rawpath><lccs><lccpath LccID="L1">'
                                'x.lcc</lccpath></lccs></file>'),
    'ten_files': manifest('<File><RawPath>a.raw</RawPath></File>' * 10),
    'eleven_files': manifest('<File><RawPath>a.raw</RawPath></File>' * 11),
    'no_file': manifest(''),
    **{'version_' + k: manifest(FULL, v) for k, v in
       (('0', '0'), ('2', '2'), ('negative', '-1'), ('text', 'one'))},
    'version_missing': '<Manifest><File><RawPath>a.raw</RawPath></File></Manifest>',
    'deep': manifest('<File>' + '<d>' * 3000 + 'x' + '</d>' * 3000 + '</File>'),
    'deep_unclosed': '<Manifest>' + '<File>' * 3000,
    'entities': raw('a&amp;b&#46;raw', lccs([('L1&quot;&lt;&#x41;', '&lt;x&gt;.lcc')])),
    'bad_entity': raw('&bogus;'),
    'cdata': raw('<![CDATA[a.raw]]>'),
    'backslash_paths': raw(rest='<SettingsPath>Quillmarsh\\Settings1680\\a.raw.xmp</SettingsPath>'
                           + lccs([('L1', 'Quillmarsh\\Settings1680\\a.raw.L1.lcc')])),
    'huge_identifier': raw(rest=lccs([('I' * 5000, 'x.lcc')]) +
                           '<ICCs><ICCPath IccID="' + 'J' * 259 + '">y.icc</ICCPath></ICCs>'),
    'huge_path': raw('p' * 259),
    'path_259': raw('p' * 258),
    'many_profiles': raw(rest=lccs((f'L{i}', f'l{i}.lcc') for i in range(300))),
    'empty_profiles': raw(rest='<LCCs><LCCPath/><LCCPath LccID=""></LCCPath></LCCs><ICCs/>'),
    'traversal_raw': raw('../x'),
    'traversal_nested': raw(rest=lccs([('L1', 'a/../../x.lcc')])),
    'absolute_raw': raw('/etc/passwd'),
    'absolute_backslash': raw('\\\\server\\share\\x'),
    'drive_raw': raw('C:x'),
    'drive_settings': raw(rest='<SettingsPath>C:\\x.xmp</SettingsPath>'),
    'dot_paths': raw('.', '<SettingsPath>./</SettingsPath><ProxyPath>a/.</ProxyPath>'),
    'other_root': '<Other>' + raw() + '</Other>',
    'unclosed': '<Manifest><File><RawPath>a.raw</RawPath>',
    'empty': '',
    'bom': '\ufeff' + raw(),
    'latin1_path': raw('\xe9.raw').encode('latin-1'),  # not UTF-8
    'embedded_nul': raw() + '\0<File>',
    'many_elements': raw(rest='<a/>' * 5000),  # past the parser's budget for a manifest
    'elements_under_budget': raw(rest='<a/>' * 3000),
    'oversized': raw(rest='<Pad>' + 'z' * 17000 + '</Pad>'),  # more than a manifest buffer
}

if __name__ == '__main__':
    out = pathlib.Path(sys.argv[1])
    out.mkdir(parents=True, exist_ok=True)
    for name, text in SEEDS.items():
        (out / name).write_bytes(text if isinstance(text, bytes) else text.encode('utf-8'))
