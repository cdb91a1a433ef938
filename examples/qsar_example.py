"""A cross-validated QSAR model on Tavrix fragment descriptors, beside RDKit's
Morgan count fingerprint in the same pipeline.

Data: the 163 benzodiazepine receptor ligands of bzr.sdf with their measured
activities (data item ACTIVITY), as Debian's rdkit-data ships them. Run with
/usr/bin/python3 examples/qsar_example.py.
"""
import numpy as np
from rdkit import Chem
from rdkit.Chem import rdFingerprintGenerator
from sklearn.ensemble import RandomForestRegressor
from sklearn.model_selection import KFold, cross_val_score
from sklearn.pipeline import Pipeline
from sklearn.preprocessing import FunctionTransformer

from tavrix import FragmentDescriptors

DATA = "/usr/share/RDKit/Projects/DbCLI/testData/bzr.sdf"


def morgan_counts(mols):
    generator = rdFingerprintGenerator.GetMorganGenerator(radius=2, fpSize=2048)
    return np.array([generator.GetCountFingerprintAsNumPy(m) for m in mols])


def cross_validated_r2(features, mols, y):
    model = Pipeline([features, ("model", RandomForestRegressor(n_estimators=100, random_state=0))])
    # The file is ordered by series, so the folds are drawn at random (fixed seed).
    folds = KFold(n_splits=5, shuffle=True, random_state=0)
    return cross_val_score(model, mols, y, cv=folds, scoring="r2")


if __name__ == "__main__":
    mols = list(Chem.SDMolSupplier(DATA))
    y = np.array([float(m.GetProp("ACTIVITY")) for m in mols])
    for label, features in [("Tavrix fragments (lmax=5)", ("fragments", FragmentDescriptors(lmax=5))),
                            ("RDKit Morgan counts (radius 2)", ("fingerprints", FunctionTransformer(morgan_counts)))]:
        scores = cross_validated_r2(features, mols, y)
        print(f"{label}: r2 = {scores.mean():.3f} (folds {' '.join(f'{s:.3f}' for s in scores)})")
