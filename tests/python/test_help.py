"""What `help()` says at the prompt, and that the stubs say the same and name all that there is."""

import ast
import inspect
import os
import pydoc
import types
import unittest

import support

optmonitoring = support.load()

STUBS = os.path.join(support.HERE, "..", "..", "debug", "tserver", "optmonitoring.pyi")

CLASSES = ("CInitialCallback", "CPerThread", "CPerCodeObject", "CPerFile")

# Hosts know these as they are, without a text; the stubs have one.
WITHOUT_TEXT = {
    "lookup_canonical_pathname", "register_canonical_pathname", "get_canonical_pathname", "set_checksum_callback",
    "get_checksum_callback", "SetInternalPathnameDict", "IsInternalFrame", "GetNonInternalFrame", "GetPathnameKind",
    "UpdateThisProcessPid", "AddToThreadStateTracing", "reset",
}
# An int cannot carry one.
CONSTANTS = {name for name in vars(optmonitoring) if name.startswith("k")}


def words(text):
    return " ".join(text.split())


def definitions(body):
    """{name: (node, text)} of the public definitions, in order; a text may follow its name as a string."""
    found = {}
    last = None
    for node in body:
        if isinstance(node, ast.AnnAssign):
            last = node.target.id
            found[last] = node, None
        elif isinstance(node, (ast.FunctionDef, ast.ClassDef)):
            found.setdefault(node.name, (node, ast.get_docstring(node)))      # of overloads the first has the text
            last = None
        elif isinstance(node, ast.Expr) and isinstance(node.value, ast.Constant) and last:
            found[last] = found[last][0], node.value.value
    return found


with open(STUBS) as stream:
    MODULE = ast.parse(stream.read())
STUB = {name: row for name, row in definitions(MODULE.body).items() if not name.startswith("_")}


def stub_of_class(name):
    """The stub's definitions of a class, without the constructor, and the class attributes, which are plain objects."""
    rows = definitions(STUB[name][0].body)
    return {name: row for name, row in rows.items()
            if name != "__init__" and not ast.unparse(getattr(row[0], "annotation", row[0])).startswith("ClassVar")}


def own_names(cls):
    """What a class defines by itself: methods and members."""
    return {name for name, value in vars(cls).items()
            if isinstance(value, (types.MethodDescriptorType, types.MemberDescriptorType,
                                  types.ClassMethodDescriptorType))}


class HelpTest(unittest.TestCase):
    def test_stubs_name_all_that_the_module_has(self):
        public = {name for name in vars(optmonitoring) if not name.startswith("_")}
        self.assertEqual(set(STUB), public)

    def test_stubs_name_all_that_the_classes_have(self):
        for name in CLASSES:
            self.assertEqual(set(stub_of_class(name)), own_names(getattr(optmonitoring, name)), name)

    def test_stubs_tell_of_everything(self):
        self.assertTrue(ast.get_docstring(MODULE))
        self.assertEqual([name for name, (_, text) in STUB.items() if not text], [])
        for cls in CLASSES:
            self.assertEqual([name for name, (_, text) in stub_of_class(cls).items() if not text], [], cls)

    def test_functions_have_the_text_of_the_stubs_or_none(self):
        for name, (node, text) in STUB.items():
            if isinstance(node, ast.FunctionDef):
                own = getattr(optmonitoring, name).__doc__
                self.assertEqual(own and words(own), None if name in WITHOUT_TEXT else words(text), name)

    def test_classes_have_the_text_of_the_stubs(self):
        for name in CLASSES:
            self.assertEqual(words(getattr(optmonitoring, name).__doc__), words(STUB[name][1]), name)

    def test_methods_and_members_have_the_text_of_the_stubs(self):
        for class_name in CLASSES:
            cls = getattr(optmonitoring, class_name)
            for name, (_, text) in stub_of_class(class_name).items():
                self.assertEqual(words(vars(cls)[name].__doc__), words(text), "%s.%s" % (class_name, name))

    def test_nothing_else_is_without_a_text(self):
        self.assertIsNone(optmonitoring.__doc__)
        silent = {name for name in STUB if not getattr(optmonitoring, name).__doc__}
        self.assertEqual(silent, WITHOUT_TEXT)
        self.assertEqual({name for name in STUB if isinstance(getattr(optmonitoring, name), int)}, CONSTANTS)

    def test_methods_have_the_signature_of_the_stubs(self):
        for class_name in CLASSES:
            cls = getattr(optmonitoring, class_name)
            for name, (node, _) in stub_of_class(class_name).items():
                if isinstance(node, ast.FunctionDef) and not isinstance(vars(cls)[name], types.MemberDescriptorType):
                    signature = inspect.signature(getattr(cls, name))
                    wanted = [each.arg for each in node.args.posonlyargs + node.args.args if each.arg != "cls"]
                    named = [each.name for each in signature.parameters.values() if "VAR" not in each.kind.name]
                    self.assertEqual(named, wanted, name)
                    defaults = [each.default for each in signature.parameters.values()
                                if each.default is not each.empty]
                    self.assertEqual(defaults, [ast.literal_eval(each) for each in node.args.defaults], name)

    def test_help_shows_it(self):
        text = pydoc.plain(pydoc.render_doc(optmonitoring))
        for part in ("class CPerFile", "GetPerFile(pathname, create=True)",
                     "The lines whose LINE events go on to the second callback", "Set the dprintf mask"):
            self.assertIn(part, text)
        self.assertIn("Decide one event", pydoc.plain(pydoc.render_doc(optmonitoring.CInitialCallback.Callback)))


if __name__ == "__main__":
    unittest.main()
