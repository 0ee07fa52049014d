"""The fields that docs/json.md tells of, and whether documents have them."""

import pathlib
import re

PAGE = pathlib.Path(__file__).parent.parent / "docs/json.md"
TYPES = {bool: "boolean", int: "integer", str: "string", type(None): "null"}


class Page:
    def __init__(self):
        self.kinds, self.seen, kind = {}, set(), None
        for line in PAGE.read_text().splitlines():
            if line.startswith("## "):
                kind = self.kinds.setdefault(line[3:], {})
            row = re.match(r"\| (?:`(\w+)`)? ?\| (.+?) \| ", line)
            if row and row[2] != "type":
                kind[row[1]] = [re.sub(r"\[([^]]+)\]\(#([\w-]+)\)", self.link, each)
                                for each in row[2].split(", ")]

    @staticmethod
    def link(match):
        assert match[2] == match[1].replace(" ", "-"), match[0]
        return match[1]

    def check(self, document):
        assert document["version"] == 1, document["version"]
        self.check_object(document, document["command"] or "every document")

    def check_object(self, value, kind, failed=False):
        fields = dict(self.kinds[kind])
        if base := fields.pop(None, None):
            self.check_object({name: value[name] for name in value if name not in fields}, base[0],
                              "failure" in value)
        else:
            unknown = value.keys() - fields
            assert not unknown, f"{kind} has {unknown}, which the page lacks"
        for name, types in fields.items():
            if name in value:
                self.check_value(value[name], kind, name, types)
            else:
                assert "optional" in types or "failure" in value or failed, f"{kind} lacks {name}"
                self.seen.add((kind, name, "optional"))

    def check_value(self, value, kind, name, types):
        if isinstance(value, list):
            found = [each for each in types if each.startswith("list of ")]
            for row in value:
                if isinstance(row, dict):
                    if row.keys() != {"left_out"}:
                        self.check_object(row, found[0][8:])
                else:
                    assert found[0][8:] == TYPES[type(row)], (kind, name, row)
        elif isinstance(value, dict):
            found = [each for each in types if each in self.kinds]
            self.check_object(value, found[0] if found else name)
        else:
            found = [TYPES[type(value)]]
            assert found[0] in types, f"{name} of {kind} is {value!r}, not {types}"
        if value != []:
            self.seen.add((kind, name, found[0]))

    def unseen(self):
        """What the page tells of, and no document has had."""
        return {(kind, name, each) for kind, fields in self.kinds.items()
                for name, types in fields.items() if name for each in types} - self.seen
