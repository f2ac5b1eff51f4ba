"""One file under several names: symbolic and hard links, a linked folder, and names with detours."""
import importlib.util
import os

import hard
import real
import soft
from linked_folder import inside
from folder import inside as inside_too

for module in (real, soft, hard, inside, inside_too):
    print(module.where("x"), os.path.basename(module.__file__))
spec = importlib.util.spec_from_file_location("detour", os.path.join("folder", "..", "real.py"))
detour = importlib.util.module_from_spec(spec)
spec.loader.exec_module(detour)
print(detour.where("y"))
