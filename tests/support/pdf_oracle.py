#!/usr/bin/env python3
"""Independent reading of a signed PDF's raw bytes, for comparison with sealmark.

Prints JSON: {"size": n, "eof_ends": [...], "signatures": [{"byte_range": [4 numbers], "revision": r|null,
"covers_whole_document": bool, "signing_time": "YYYYMMDDHHMMSSZ"|null, "P": n|null}]}
with one entry per /ByteRange found anywhere in the file (superseded dictionaries too).
The signing time comes from `openssl cms -cmsout -print` of the /Contents next to the
/ByteRange; /P from a DocMDP /TransformParams in the same dictionary text.
"""
import calendar
import json
import re
import subprocess
import sys
import tempfile
import time

data = open(sys.argv[1], 'rb').read()
marker = b'%%EOF\r\n'
ends = []
at = data.find(marker)
while at >= 0:
    ends.append(at + len(marker))
    at = data.find(marker, at + 1)

BYTERANGE = re.compile(rb'/ByteRange\s*\[\s*(\d+)\s+(\d+)\s+(\d+)\s+(\d+)\s*\]')
CONTENTS = re.compile(rb'/Contents\s*<([0-9A-Fa-f\s]*)>')
P_VALUE = re.compile(rb'/TransformParams\s*<<[^>]*?/P\s+(\d+)')


def signing_time(hexdigits):
    digits = re.sub(rb'\s', b'', hexdigits)
    if len(digits) % 2:
        digits += b'0'  # a PDF hex string with an odd count ends in an implied 0
    der = bytes.fromhex(digits.decode())
    with tempfile.NamedTemporaryFile(suffix='.der') as f:
        f.write(der)
        f.flush()
        out = subprocess.run(['openssl', 'cms', '-cmsout', '-print', '-inform', 'DER', '-in', f.name],
                             capture_output=True, text=True).stdout
    m = re.search(r'object: signingTime \(1\.2\.840\.113549\.1\.9\.5\)\s*\n\s*set:\s*\n\s*(UTCTIME|GENERALIZEDTIME):(.*)', out)
    if not m:
        return None
    t = time.strptime(m.group(2).strip(), '%b %d %H:%M:%S %Y %Z')
    return time.strftime('%Y%m%d%H%M%SZ', time.gmtime(calendar.timegm(t)))


sigs = []
for m in BYTERANGE.finditer(data):
    o1, l1, o2, l2 = (int(x) for x in m.groups())
    end = o2 + l2
    # The indirect object around this /ByteRange: from its "obj" to its "endobj".
    lo = data.rfind(b' obj', 0, m.start())
    hi = data.find(b'endobj', m.end())
    lo, hi = (lo if lo >= 0 else 0), (hi if hi >= 0 else len(data))
    dict_text = data[lo:hi]
    contents = CONTENTS.search(dict_text)
    p = P_VALUE.search(dict_text)
    sigs.append({
        'byte_range': [o1, l1, o2, l2],
        'revision': ends.index(end) if end in ends else None,
        'covers_whole_document': end == len(data),
        'signing_time': signing_time(contents.group(1)) if contents else None,
        'P': int(p.group(1)) if p else None,
    })
print(json.dumps({'size': len(data), 'eof_ends': ends, 'signatures': sigs}))
