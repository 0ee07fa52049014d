"""reach.py TARGET CORPUS FUNCTION...: runs the inputs of the corpus alone, and fails if one of the
functions is not entered by any of them. An input that gets no further than a check in front of its
subject looks like a pass, and tests nothing."""

import re
import subprocess
import sys

target, corpus, *functions = sys.argv[1:]
run = subprocess.run([target, "-runs=0", "-print_coverage=1", corpus], check=True, text=True,
                     stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
entered = re.findall(r"^COVERED_FUNC: hits: [1-9]\d* edges: \S+ (.*?) \S+:\d+", run.stderr, re.M)
missed = [name for name in functions
          if not any(re.search(rf"\b{name}\(", function) for function in entered)]
if not entered or missed:
    sys.exit(f"{target}: of {len(entered)} functions entered none is {', '.join(missed) or 'named'}")
