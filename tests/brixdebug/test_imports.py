"""The imports of the host run one way: no file of it reaches, over others or at once, back to itself."""

import ast
import unittest

from host_support import HOST_DIR

PATHS = sorted(HOST_DIR.rglob("*.py"))


def module_name(path):
    parts = path.relative_to(HOST_DIR).with_suffix("").parts
    return ".".join(parts[:-1] if parts[-1] == "__init__" else parts)


def package_of(path):
    name = module_name(path)
    return name if path.name == "__init__.py" else name.rpartition(".")[0]


def imported_names(path):
    """What each import of the file may load, those for type checkers and those inside functions included."""
    for node in ast.walk(ast.parse(path.read_text())):
        if isinstance(node, ast.Import):
            yield from ([alias.name] for alias in node.names)
        elif isinstance(node, ast.ImportFrom):
            package = package_of(path).split(".")
            base = package[:len(package) + 1 - node.level] if node.level else []
            base = ".".join(base + ([node.module] if node.module else []))
            # `from package import module` loads the module; of a name in the package's own file, that file.
            yield from ([base + "." + alias.name, base] for alias in node.names)


def graph():
    """{module: the modules of the host that it imports}."""
    modules = {module_name(path) for path in PATHS}
    return {module_name(path): {next(name for name in names if name in modules)
                                for names in imported_names(path) if modules.intersection(names)}
            for path in PATHS}


def find_circle(imports):
    """The modules of one circle in the order of their imports; empty when there is none."""
    done = set()

    def visit(module, trail):
        if module in trail:
            return trail[trail.index(module):]
        if module in done:
            return []
        done.add(module)
        for imported in sorted(imports[module]):
            circle = visit(imported, trail + [module])
            if circle:
                return circle
        return []

    return next(filter(None, (visit(module, []) for module in sorted(imports))), [])


class ImportsTest(unittest.TestCase):

    def test_circle_is_found(self):
        self.assertEqual(find_circle({"a": {"b"}, "b": {"c"}, "c": {"b"}}), ["b", "c"])

    def test_imports_of_each_kind_are_seen(self):
        imports = graph()
        self.assertIn("brixdebug.stops", imports["brixdebug.monitor"])        # from brixdebug.stops import ...
        self.assertIn("brixdebug.internal", imports["brixdebug.monitor"])     # from brixdebug import internal
        self.assertIn("brixbase.dlog", imports["brixdebug.raising"])          # from brixbase import dlog
        self.assertIn("brixbase", imports["brixdebug.internal"])              # import brixbase
        self.assertIn("brixdebug.protocol", imports["brixdebug.monitor"])     # for type checkers alone

    def test_no_circle(self):
        self.assertEqual(find_circle(graph()), [])


if __name__ == "__main__":
    unittest.main()
