#!/usr/bin/env python3
"""Writes the seed corpus of the XML fuzz target into the directory given (created if needed)."""
import pathlib
import sys

MANIFEST = (
    '<Manifest><Platform>0</Platform><File><RawPath>IMG_1.CR3</RawPath><LCCs>'
    '<LCCPath LccID="a&amp;b">Quillmarsh/Settings1680/IMG_1.CR3.a.lcc</LCCPath></LCCs>'
    '</File><Version>1</Version></Manifest>'
)

SEEDS = {
    'manifest': MANIFEST,
    'manifest_declared': '<?xml version="1.0" encoding="UTF-8"?>\r\n' + MANIFEST,
    'manifest_formatted': (
        '<?xml version="1.0"?>\n<Manifest>\n\t<Platform>0</Platform>\n\t<Version>2</Version>\n'
        "\t<MinorVersion>1</MinorVersion>\n\t<Type>Single</Type>\n\t<File>\n"
        "\t\t<RawPath>DSC 0001.NEF</RawPath>\n\t\t<SettingsPath>s/DSC 0001.cos</SettingsPath>\n"
        "\t\t<ICCs><ICCPath IccID='p1'>s/DSC.p1</ICCPath><ICCPath IccID='p2'/></ICCs>\n"
        '\t\t<QmMaskPath>m</QmMaskPath><QmHairPath>h</QmHairPath>\n\t</File>\n</Manifest>\n'
    ),
    'entities': '<Manifest a="&lt;&gt;&amp;&quot;&apos;" b=\'&#65;&#x42;&#255;\'>'
                '&#x9;&#10;x &amp; y</Manifest>',
    'cdata': '<Manifest><a><![CDATA[ <raw> &amp; ]]></a><b><![CDATA[  ]]><c/></b></Manifest>',
    'comments': '<!-- head --><!DOCTYPE Manifest [ <!ELEMENT Manifest ANY> ]>'
                '<Manifest><!-- a <b> --><?pi x?>text<e/>more</Manifest><!-- tail -->',
    'other_root': '<Other><Manifest/></Other><Manifest/>',
    'mixed': '<Manifest>a<b>c<d/>e</b> <f> </f>g</Manifest>',
    'deep': '<Manifest>' + '<a>' * 5000 + 'x' + '</a>' * 5000 + '</Manifest>',
    'deep_unclosed': '<Manifest>' + '<a k="v">' * 5000,
    'wide': '<Manifest>' + ''.join(f'<f i="{i}"/>' for i in range(2000)) + '</Manifest>',
    'bad_end': '<Manifest><a></b></Manifest>',
    'bad_entity': '<Manifest>&nbsp;&#256;</Manifest>',
    'bad_attribute': '<Manifest a=1 b="2/>',
    'bad_clear': '<Manifest><![CDATA[ never closed',
    'bad_names': '<Manifest>< a></ ></></Manifest>',
    'empty': '',
    'blank': ' \r\n\t',
    'bom': '\ufeff<Manifest/>',
    'latin1': b'<Manifest a="\xe9">\xff\x00\x80</Manifest>',  # not UTF-8: passes untouched
}

if __name__ == '__main__':
    out = pathlib.Path(sys.argv[1])
    out.mkdir(parents=True, exist_ok=True)
    for name, text in SEEDS.items():
        (out / name).write_bytes(text if isinstance(text, bytes) else text.encode('utf-8'))
