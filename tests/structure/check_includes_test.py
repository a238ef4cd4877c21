#!/usr/bin/env python3
"""Plants includes in a scratch tree: each forbidden one must be found, and no allowed one."""

import pathlib
import tempfile
import unittest

import check_includes

HEADERS = [
    "foundation/value.hpp", "platform/queue.hpp", "platform/linux/event_loop.hpp", "filefacts/facts.hpp",
    "settings/QMRNamespace.hpp", "settings/client.hpp", "validation/validator.hpp", "reputation/lookup.hpp",
    "reputation/backends/wisp.hpp", "daemon/listener.hpp", "client/client.hpp", "companions/store.hpp",
    "companions/skyvaultd/agent.hpp", "tools/options.hpp", "tests/support/recorder.hpp",
]

FORBIDDEN = [
    ("foundation/a.cpp", "#include <unistd.h>"),
    ("foundation/a.cpp", "#include <ncurses>"),
    ("foundation/a.cpp", "#include <expected>"),
    ("platform/a.hpp", '#include "platform/linux/event_loop.hpp"'),
    ("filefacts/a.cpp", '#include "settings/client.hpp"'),
    ("validation/a.cpp", '#include "settings/QMRNamespace.hpp"'),
    ("reputation/a.cpp", '#include "reputation/backends/wisp.hpp"'),
    ("reputation/backends/a.cpp", '#include "../../daemon/listener.hpp"'),
    ("daemon/a.cpp", '#include "client/client.hpp"'),
    ("daemon/a.cpp", "#include HEADER"),
    ("client/a.cpp", "#include <reputation/lookup.hpp>"),
    ("client/a.cpp", '#include "reputation/not_there_yet.hpp"'),
    ("companions/skyvaultd/a.cpp", '#include "daemon/listener.hpp"'),
    ("tools/a.cpp", '#include "daemon/listener.hpp"'),
]

ALLOWED = [
    ("foundation/a.cpp", '#include "foundation/value.hpp"\n#include "value.hpp"\n#include <vector>\n#include <cstdint>'),
    ("platform/linux/a.cpp", '#include "platform/linux/event_loop.hpp"\n#include <unistd.h>\n#include <cbor.h>'),
    ("filefacts/a.cpp", '#include "settings/QMRNamespace.hpp"\n#include "platform/queue.hpp"'),
    ("reputation/backends/a.cpp", '#include "reputation/lookup.hpp"\n#include "reputation/backends/wisp.hpp"'),
    ("daemon/a.cpp", '#include "reputation/backends/wisp.hpp"\n/*\n#include <unistd.h>\n*/\n// #include <unistd.h>'),
    ("companions/skyvaultd/a.cpp", '#include "companions/store.hpp"\n#include "agent.hpp"\n#include <sqlite3.h>'),
    ("tools/a.cpp", '#include "client/client.hpp"\n#include "companions/store.hpp"\n#include <CLI/CLI.hpp>'),
]


class PlantedIncludes(unittest.TestCase):
    def tree_with(self, *files):
        with tempfile.TemporaryDirectory() as folder:
            root = pathlib.Path(folder).resolve()
            for name, text in [(name, "#pragma once") for name in HEADERS] + list(files):
                path = root / name
                path.parent.mkdir(parents=True, exist_ok=True)
                path.write_text(text + "\n", encoding="utf-8")
            return check_includes.violations(root)

    def test_each_forbidden_one_is_found_alone_and_no_allowed_one(self):
        for source, lines in FORBIDDEN + ALLOWED:
            with self.subTest(source=source, lines=lines):
                found, count = self.tree_with((source, "// first line\n" + lines))
                expected = [f"{source}:2"] if (source, lines) in FORBIDDEN else []
                self.assertEqual([line.split(": ")[0] for line in found], expected)
                self.assertEqual(count, len(HEADERS))  # all but the one of tests/, and the source


if __name__ == "__main__":
    unittest.main()
