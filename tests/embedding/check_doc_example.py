"""The ```cpp block of docs/embedding.md that follows the line `<!-- embedExample.cpp -->` must
be the text of tests/embedding/embedExample.cpp exactly, and the block after the line that ends
in "It prints" what the program prints when run with the plug-in directory.
Usage: check_doc_example.py DOC FILE PROGRAM PLUGIN_DIRECTORY"""
import difflib
import subprocess
import sys

doc_path, file_path, program, plugins = sys.argv[1:5]
lines = open(doc_path, encoding="utf-8").read().split("\n")
try:
    start = lines.index("<!-- embedExample.cpp -->")
except ValueError:
    sys.exit(f"{doc_path}: no line <!-- embedExample.cpp --> before the program")
if lines[start + 1] != "```cpp":
    sys.exit(f"{doc_path}:{start + 2}: expected ```cpp after the marker")
end = lines.index("```", start + 2)
shown = "\n".join(lines[start + 2:end]) + "\n"
actual = open(file_path, encoding="utf-8").read()
if shown != actual:
    sys.stdout.writelines(difflib.unified_diff(actual.splitlines(True), shown.splitlines(True), file_path, doc_path))
    sys.exit("the program in the documentation differs from the file")
print(f"{doc_path} shows {file_path} exactly ({len(actual.splitlines())} lines)")

printed = next(i for i, line in enumerate(lines) if line.endswith("It prints"))
opening = lines.index("```", printed)
end = lines.index("```", opening + 1)
shown_output = "\n".join(lines[opening + 1:end]) + "\n"
run = subprocess.run([program, plugins], capture_output=True, text=True, timeout=60)
if run.returncode != 0 or run.stdout != shown_output:
    sys.stdout.writelines(difflib.unified_diff(run.stdout.splitlines(True), shown_output.splitlines(True), "program output", doc_path))
    sys.exit(f"the output shown in the documentation is not what the program prints (status {run.returncode})")
print("and the output it shows is what the program prints")
