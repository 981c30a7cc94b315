#!/usr/bin/env python3
"""Peak memory of cefdump on the inputs that cost it most, against its bound.

cefdump prints any file the bencode library reads within 128 bytes per value plus
16 MiB. Each row makes one input, prints it (output discarded) and reports the maximum
resident size that /usr/bin/time -v measures, the number of values and the bound.

  bench/cefdump_memory.py BUILD/tools/cefdump/cefdump [EMULATOR...]

What the program takes before it reads anything (its peak for --version: its libraries,
and under an emulator such as qemu-i386 the emulator) is subtracted from each figure.
Exits non-zero when a row exceeds its bound or cefdump fails.
"""
import os
import random
import re
import subprocess
import sys
import tempfile

LIMIT = 10 * 1024 * 1024


def nested(opening, depth):
    return opening * depth + 'i1e' + 'e' * depth, depth + 1


def flat():
    parts, size, count = ['l'], 2, 0
    while True:
        text = str(count)
        item = 'i%se' % text if count % 2 == 0 else '%d:%s' % (len(text), text)
        if size + len(item) > LIMIT:
            break
        parts.append(item)
        size += len(item)
        count += 1
    return ''.join(parts) + 'e', count


def shuffled_keys(count):
    keys = ['k%06d' % key for key in range(count)]
    random.Random(1).shuffle(keys)
    return 'd' + ''.join('%d:%si%de' % (len(k), k, n) for n, k in enumerate(keys)) + 'e', count


def long_strings():
    # As many strings of the longest length the reader accepts as the size limit holds:
    # few values, so the bound is nearly all the fixed part.
    length = 0x80000
    count = (LIMIT - 2) // (len(str(length)) + 1 + length)
    return 'l' + ('%d:' % length + '\xff' * length) * count + 'e', count


ROWS = [
    ('2,000,000 nested lists', lambda: nested('l', 2000000)),
    ('20,000 nested lists', lambda: nested('l', 20000)),
    ('2,500,000 nested dictionaries', lambda: nested('d0:', 2500000)),
    ('10 MiB list of integers and strings', flat),
    ('100,000 keys out of order', lambda: shuffled_keys(100000)),
    ('19 strings of 512 KiB, not UTF-8', long_strings),
]


def peak_kb(command):
    run = subprocess.run(['/usr/bin/time', '-v'] + command, stdout=subprocess.DEVNULL,
                         stderr=subprocess.PIPE, text=True)
    found = re.search(r'Maximum resident set size \(kbytes\): (\d+)', run.stderr)
    return int(found.group(1)), run.returncode


def main():
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    command = sys.argv[2:] + [sys.argv[1]]
    failed = False
    start = peak_kb(command + ['--version'])[0]
    print('cefdump --version: %d KB, subtracted' % start)
    with tempfile.TemporaryDirectory() as directory:
        path = os.path.join(directory, 'input.cef')
        for name, make in ROWS:
            text, values = make()
            with open(path, 'wb') as out:
                out.write(text.encode('latin-1'))
            peak, status = peak_kb(command + [path])
            peak -= start
            bound = (128 * values + 16 * 1024 * 1024) // 1024
            ok = status == 0 and peak <= bound
            failed |= not ok
            print('%-38s %9d values  %8d KB peak  %8d KB bound  %s' %
                  (name, values, peak, bound, 'ok' if ok else 'OVER (exit %d)' % status))
    sys.exit(1 if failed else 0)


if __name__ == '__main__':
    main()
