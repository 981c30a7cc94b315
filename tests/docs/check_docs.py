#!/usr/bin/env python3
"""What the operators' documents state that the programs can show: the result code table
against the codes the headers define, the options of each man page against the program's
--help, and the status examples against the real output for the state they describe.

check_docs.py SOURCE_DIR PATHWEAVE_HOST PLUGIN CEFDUMP INSTALL_DIR
"""
import calendar, glob, os, re, shutil, subprocess, sys, time

src, host, plugin, cefdump, install = sys.argv[1:6]
failures = []
read = lambda *p: open(os.path.join(src, *p), encoding="utf-8").read()
hexcodes = lambda text: {c.upper() for c in re.findall(r"0x([0-9A-Fa-f]{8})", text)}

# Every code an operator can meet from the profile reader, HTTP, certificates or the
# uploader is in the table, and the table names no code that nothing defines.
defined = set()
for header in glob.glob(os.path.join(src, "host/include/*.h")) + glob.glob(os.path.join(src, "vpn/PhoneHome/*.h")):
    defined |= {c.upper() for c in re.findall(r"PwResult\(0x([0-9A-Fa-f]{8})\)", open(header).read())}
after = read("docs/operation.md").split("Result codes you will meet")[1]
table = re.search(r"(?:^\|.*\n)+", after, re.M).group(0)  # the first table after the heading
listed = hexcodes("\n".join(row.split("|")[1] for row in table.splitlines() if row.startswith("| 0x")))
for code in sorted({c for c in defined if c[:4] in ("FE30", "FE45", "FE21", "FE87")} - listed):
    failures.append("operation.md: code table lacks 0x" + code)
for code in sorted(listed - defined):
    failures.append("operation.md: code table names 0x%s, which no header defines" % code)

# Each option a man page names (outside its examples, which call other programs too) is
# one the program offers, and the reverse.
def options(text):
    text = re.sub(r"\.SH EXAMPLES?\n.*?(?=\.SH|$)", "", text, flags=re.S)
    return set(re.findall(r"(?<![\w-])--[a-z][a-z-]*", text.replace("\\-", "-")))
help_of = {p: options(subprocess.run([p, "--help"], capture_output=True, text=True).stdout) for p in (host, cefdump)}
for page, program, both in (("pathweave-host.8", host, True), ("cefdump.1", cefdump, True),
                            ("pathweave-host.conf.5", host, False)):
    named = options(read("docs/man", page))
    for missing in sorted(named - help_of[program]):
        failures.append("%s names %s, which --help does not offer" % (page, missing))
    for missing in sorted(help_of[program] - named if both else ()):
        failures.append("%s lacks %s" % (page, missing))

# The status examples: the feedback directory is made as each example describes it, and
# pathweave-host status must print the example exactly.
def stamp(text):
    return calendar.timegm(time.strptime(text, "%Y-%m-%dT%H:%M:%SZ"))
feedback = os.path.join(install, "CustomerExperienceFeedback")
operation = read("docs/operation.md").split("$ pathweave-host status\n")[1].split("```")[0]
manual = read("docs/man/pathweave-host.8").split(".B status\n")[1].split(".EX\n")[1].split(".EE")[0]
for name, example in (("operation.md", operation), ("pathweave-host.8", manual.replace("\\-", "-"))):
    shutil.rmtree(feedback, ignore_errors=True)
    os.makedirs(os.path.join(feedback, "outbound"))
    fields = dict(line.split(": ", 1) for line in example.strip().splitlines())
    with open(os.path.join(feedback, "CustomerExperience_Feedback.xml"), "w") as profile:
        profile.write("<Feedback><ServiceDisable>%s</ServiceDisable></Feedback>\n" % (fields.get("enabled") == "no"))
    with open(os.path.join(feedback, "history"), "w") as history:
        for key in ("post", "feedback"):
            value = fields.get("last " + key, "never")
            history.write("last_%s:%s\n" % (key, "" if value == "never" else stamp(value)))
    waiting = re.fullmatch(r"(\d+) reports? waiting, oldest (\S+)", fields.get("outbound", ""))
    for number in range(int(waiting.group(1)) if waiting else 0):
        report = os.path.join(feedback, "outbound", "feedback_data%d.cef" % (number + 1))
        open(report, "w").close()
        os.utime(report, (stamp(waiting.group(2)) + 60 * number,) * 2)
    settings = os.path.join(feedback, "host.conf")
    open(settings, "w").close()
    real = subprocess.run([host, "--plugin", plugin, "--settings", settings, "status"],
                          capture_output=True, text=True).stdout
    expected = example.strip().replace("/opt/norvek/pathweave", install)
    if real.strip() != expected:
        failures.append("%s: the status example differs from the real output:\n%s" % (name, real))
shutil.rmtree(feedback, ignore_errors=True)

print("\n".join(failures) or "documents agree with the programs")
sys.exit(1 if failures else 0)
