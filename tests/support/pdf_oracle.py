#!/usr/bin/env python3
# Checks `sealmark verify --json` against an independent reading of each signed PDF's raw bytes.
# Usage: pdf_oracle.py SEALMARK DIR   Reads every PDF below DIR; prints what differs, and how often a key
# was compared when that is too seldom to mean anything.
# Revision markers ("%%EOF" then CR LF, LF, CR or the end) and /ByteRange arrays come from a regular-expression scan (superseded dictionaries
# too); the signing time from `openssl cms -cmsout -print` of the /Contents next to the /ByteRange;
# /P from a DocMDP /TransformParams in the same dictionary text.
import collections, glob, json, re, subprocess, sys, time

BYTERANGE = re.compile(rb'/ByteRange\s*\[\s*(\d+)\s+(\d+)\s+(\d+)\s+(\d+)\s*\]')
CONTENTS = re.compile(rb'/Contents\s*<([0-9A-Fa-f\s]*)>')
P_VALUE = re.compile(rb'/TransformParams\s*<<[^>]*?/P\s+(\d+)')
SIGNING_TIME = re.compile(r'object: signingTime \(1\.2\.840\.113549\.1\.9\.5\)\s*\n\s*set:\s*\n\s*\w*TIME:(.*)')
compared = collections.Counter()


def signing_time(hexdigits):
    digits = re.sub(rb'\s', b'', hexdigits)
    digits += b'0' * (len(digits) % 2)  # a PDF hex string with an odd count ends in an implied 0
    out = subprocess.run(['openssl', 'cms', '-cmsout', '-print', '-inform', 'DER'], input=bytes.fromhex(digits.decode()),
                         capture_output=True).stdout.decode(errors='replace')
    m = SIGNING_TIME.search(out)
    return m and time.strftime('%Y%m%d%H%M%SZ', time.strptime(m[1].strip(), '%b %d %H:%M:%S %Y %Z'))


def check(path, key, ours, independent):
    compared[key] += 1
    if ours != independent:
        print('%s: %s %r, read %r' % (path, key, ours, independent))
    return ours != independent


for path in sorted(glob.glob(sys.argv[2] + '/**/*.pdf', recursive=True)):
    run = subprocess.run([sys.argv[1], 'verify', '--json', path], capture_output=True)
    if run.returncode == 2:
        continue  # not opened: nothing to compare
    ours, data = json.loads(run.stdout), open(path, 'rb').read()
    ends = [m.end() for m in re.finditer(rb'%%EOF(?:\r\n|\r|\n|\Z)', data)]
    check(path, 'revisions', ours['revisions'], len(ends))
    for s in (s for s in ours['signatures'] if s['signed'] and s['byte_range']):
        # The latest dictionary in the file with the same byte range.
        found = [m for m in BYTERANGE.finditer(data) if [int(x) for x in m.groups()] == s['byte_range']]
        if check(path, 'the /ByteRange of ' + s['field'] + ' in the file', bool(found), True):
            continue
        end = s['byte_range'][2] + s['byte_range'][3]
        check(path, 'revision', s['revision'], ends.index(end) if end in ends else None)
        o1, l1, o2 = s['byte_range'][:3]
        gap = re.fullmatch(rb'<[0-9A-Fa-f\s]*>', data[o1 + l1:o2])
        check(path, 'covers_whole_document', s['covers_whole_document'], o1 == 0 and bool(gap) and end == len(data))
        # The indirect object around the latest /ByteRange with these numbers: from its "obj" to its "endobj".
        lo, hi = data.rfind(b' obj', 0, found[-1].start()), data.find(b'endobj', found[-1].end())
        text = data[max(lo, 0):hi if hi >= 0 else len(data)]
        contents, p = CONTENTS.search(text), P_VALUE.search(text)
        if contents and s['certificates'] and (when := signing_time(contents[1])):
            check(path, 'signing_time', s['signing_time'], when)
        if p:
            check(path, 'P', s['permission'] and s['permission']['P'], int(p[1]))
for key, least in (('revisions', 60), ('revision', 60), ('covers_whole_document', 60), ('signing_time', 10), ('P', 1)):
    if compared[key] < least:
        print('%s compared %d times, fewer than %d' % (key, compared[key], least))
