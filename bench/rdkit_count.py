# Times RDKit's path count fingerprint (maxPath 7) over every molecule of an
# SD file, read unsanitised with hydrogens kept; parsing is not timed.
import sys
import time

from rdkit import Chem, RDLogger
from rdkit.Chem import rdFingerprintGenerator

RDLogger.DisableLog("rdApp.*")
mols = []
for m in Chem.SDMolSupplier(sys.argv[1], sanitize=False, removeHs=False):
    if m is not None:
        m.UpdatePropertyCache(strict=False)
        mols.append(m)
gen = rdFingerprintGenerator.GetRDKitFPGenerator(maxPath=7)
runs = []
for _ in range(int(sys.argv[2]) if len(sys.argv) > 2 else 3):
    start = time.perf_counter()
    for m in mols:
        gen.GetSparseCountFingerprint(m)
    runs.append(time.perf_counter() - start)
runs.sort()
print(f"{runs[len(runs) // 2]:.3f} {len(mols)}")
