"""The Python package against the program's reviewed runs, and as a scikit-learn
transformer; run by ctest with PYTHONPATH, TAVRIX_SOURCE_DIR and TAVRIX_BUILD_DIR set."""
import atexit
import lzma
import os
import pathlib
import pickle
import re
import shlex
import shutil
import stat
import subprocess
import sys
import tempfile
import threading
import unittest

import numpy as np
import scipy.io

import tavrix

SOURCE = pathlib.Path(os.environ.get("TAVRIX_SOURCE_DIR", pathlib.Path(__file__).resolve().parents[2]))
BUILD = pathlib.Path(os.environ.get("TAVRIX_BUILD_DIR", SOURCE / "build"))
GOLDEN = SOURCE / "tests/data/golden"
EXAMPLES = SOURCE / "examples"

try:
    from rdkit import Chem, RDLogger
    RDLogger.DisableLog("rdApp.*")
except ImportError:
    Chem = None


def read_xz(path):
    return lzma.decompress(pathlib.Path(path).read_bytes()).decode("utf-8", "surrogateescape")


def golden_matrix(case):
    """The count matrix of a golden run's descriptor file, as tavrix-matrix writes it and SciPy reads it."""
    with tempfile.TemporaryDirectory() as folder:
        (pathlib.Path(folder) / "run.out").write_bytes(lzma.decompress(next(case.glob("*.out.xz")).read_bytes()))
        subprocess.run([BUILD / "tavrix-matrix", "run.out"], cwd=folder, check=True)
        return scipy.io.mmread(pathlib.Path(folder) / "run.mtx").tocsr().astype(np.int32)


def golden_parameters(command):
    """FragmentDescriptors parameters and the input name of a golden run's command line."""
    words = shlex.split(command)[1:]
    params = {"atom_labels": "-NoAtmLabels" not in words, "bond_labels": "-NoBndLabels" not in words}
    for option, value in zip(words, words[1:]):
        if option in ("-lmin", "-lmax", "-fmin"):
            params[option[1:]] = int(value)
        elif option == "-ds":
            params["ds"] = value
    return params, words[-1]


def assert_same(test, got, want, what):
    test.assertEqual(got.shape, want.shape, what)
    test.assertEqual(got.dtype, np.int32, what)
    differing = (got != want).nnz
    test.assertEqual(differing, 0, f"{what}: {differing} entries differ")


def sd_records(text):
    """Whole SD records of text, each with its "$$$$" line."""
    return re.findall(r".*?^\$\$\$\$\n", text, re.M | re.S)


class Inputs:
    """The golden inputs unpacked once into a folder that is then made read-only."""
    folder = None

    @classmethod
    def get(cls):
        if cls.folder is None:
            cls.folder = tempfile.mkdtemp(prefix="tavrix-py-")
            for packed in (GOLDEN / "inputs").glob("*.xz"):
                (pathlib.Path(cls.folder) / packed.stem).write_bytes(lzma.decompress(packed.read_bytes()))
            os.chmod(cls.folder, stat.S_IRUSR | stat.S_IXUSR)
            atexit.register(lambda: (os.chmod(cls.folder, stat.S_IRWXU), shutil.rmtree(cls.folder)))
        return pathlib.Path(cls.folder)


class GoldenRuns(unittest.TestCase):
    """fit_transform gives the descriptor file and structure file of the same run; transform agrees."""

    def test_every_golden_run(self):
        inputs = Inputs.get()
        before = sorted((p.name, p.stat().st_mtime_ns) for p in inputs.iterdir())
        cases = sorted(p for p in GOLDEN.iterdir() if (p / "command.txt").exists())
        for k, case in enumerate(cases):
            # Every thread count for fit and for transform, across the runs.
            fit_jobs, transform_jobs = (None, 2, -1)[k % 3], (2, -1, None)[k % 3]
            with self.subTest(case=case.name, fit_jobs=fit_jobs, transform_jobs=transform_jobs):
                params, name = golden_parameters((case / "command.txt").read_text())
                structures = read_xz(next(case.glob("*_frag.sdf.xz")))
                f = tavrix.FragmentDescriptors(**params, n_jobs=fit_jobs)
                X = f.fit_transform(inputs / name)  # pathlib.Path; Mol2 by the name
                self.assertEqual("".join(f.structures_), structures)
                # Every descriptor occurs in the run's compounds: the matrix has a column for each.
                want = golden_matrix(case)
                assert_same(self, X, want, f"fit_transform of {case.name} against its descriptor file")
                f.set_params(n_jobs=transform_jobs)
                assert_same(self, f.transform(str(inputs / name)), want, f"transform of {case.name}")
                names = f.get_feature_names_out()
                self.assertEqual(len(set(names)), len(names))
                self.assertFalse([n for n in names if " #" in n], "one labelled tree with two descriptors")
                if name.endswith(".sdf"):
                    # A subset gives its own rows of the matrix.
                    records = sd_records((inputs / name).read_text(errors="surrogateescape"))
                    rows = list(range(0, len(records), 3))
                    part = f.transform("".join(records[i] for i in rows))
                    assert_same(self, part, X[rows], f"transform of every third compound of {case.name}")
        self.assertGreaterEqual(len(cases), 9)
        self.assertEqual(sorted((p.name, p.stat().st_mtime_ns) for p in inputs.iterdir()), before,
                         "the input folder changed")

    def test_feature_names_read_as_fragments(self):
        f = tavrix.FragmentDescriptors(lmax=3)
        f.fit(SOURCE / "tests/data/example/example.sdf")
        names = list(f.get_feature_names_out())
        self.assertEqual(names[1], "[C]-[C]")  # descriptor 2, as the README shows it
        self.assertEqual(names[7], "[C]=[O]")
        self.assertIn("[C]-[C](-[C])=[O]", names)  # a methyl ketone
        m = tavrix.FragmentDescriptors(lmax=2).fit(Inputs.get() / "cdk2.mol2")
        self.assertIn("[C.ar]:[C.ar]", list(m.get_feature_names_out()))
        if Chem is not None:
            # Read as SMARTS, each name has the atoms and bonds of its record.
            for name, record in zip(names, f.structures_):
                counts = record.split("\n")[3]
                mol = Chem.MolFromSmarts(name)
                self.assertEqual((mol.GetNumAtoms(), mol.GetNumBonds()), (int(counts[:3]), int(counts[3:6])), name)


@unittest.skipIf(Chem is None, "needs RDKit (Debian: python3-rdkit)")
class MoleculeInputs(unittest.TestCase):
    """SMILES, RDKit molecules, SD text and the file they make count alike."""

    def test_smiles_molecules_text_and_file_agree(self):
        smiles = [line.split()[0] for line in
                  open("/usr/share/RDKit/Contrib/FreeWilson/data/CHEMBL2321810.smi").readlines()[:40]]
        mols = [Chem.MolFromSmiles(s) for s in smiles]
        text = "".join(Chem.MolToMolBlock(m, kekulize=True, forceV3000=False) + "$$$$\n" for m in mols)
        with tempfile.TemporaryDirectory() as folder:
            path = pathlib.Path(folder) / "set.sdf"
            path.write_text(text)
            want = tavrix.FragmentDescriptors(lmax=6).fit_transform(path)
            for what, X in [("smiles", smiles), ("molecules", mols), ("SD text", text), ("path string", str(path))]:
                f = tavrix.FragmentDescriptors(lmax=6)
                assert_same(self, f.fit_transform(X), want, f"fit_transform of {what}")
                assert_same(self, f.transform(X), want, f"transform of {what}")

    def test_unparsable_smiles_is_named_by_position(self):
        with self.assertRaisesRegex(ValueError, "position 1"):
            tavrix.FragmentDescriptors().fit(["CCO", "C1CC", "CC"])


class Errors(unittest.TestCase):
    """A refused input raises the program's message; the interpreter and the object go on."""

    GOOD = "a\n  x\n\n  2  1  0  0  0  0  0  0  0  0999 V2000\n" \
           "    0.0000    0.0000    0.0000 C   0  0\n    0.0000    0.0000    0.0000 O   0  0\n" \
           "  1  2  1  0\nM  END\n$$$$\n"

    def test_failures_raise_and_leave_the_object_usable(self):
        f = tavrix.FragmentDescriptors(lmax=3)
        with self.assertRaisesRegex(ValueError, "not fitted"):
            f.transform(self.GOOD)
        want = f.fit_transform(self.GOOD)
        self.assertEqual(want.toarray().tolist(), [[1]])
        bad = self.GOOD.replace("  1  2  1  0", "  1  2  9  0")
        for call in (f.fit, f.transform):
            with self.assertRaises(ValueError) as caught:
                call(bad)
            self.assertEqual(str(caught.exception), "read sdf file : edge label not valid 9")
        with self.assertRaisesRegex(ValueError, "^can't open a file 'missing.sdf'$"):
            f.transform("missing.sdf")
        with self.assertRaisesRegex(ValueError, "ds must be one of"):
            tavrix.FragmentDescriptors(ds="XX").fit(self.GOOD)
        for n_jobs in (0, -2, 1.5, True, 1025):
            with self.assertRaisesRegex(ValueError, "n_jobs must be"):
                tavrix.FragmentDescriptors(n_jobs=n_jobs).fit(self.GOOD)
            with self.assertRaisesRegex(ValueError, "n_jobs must be"):
                f.set_params(n_jobs=n_jobs).transform(self.GOOD)
        f.set_params(n_jobs=None)
        assert_same(self, f.transform(self.GOOD), want, "transform after the failures")
        assert_same(self, f.fit_transform(self.GOOD), want, "fit_transform after the failures")


class Estimator(unittest.TestCase):
    """scikit-learn's conventions, pickling and threads."""

    def test_clone_and_pickle(self):
        try:
            from sklearn.base import clone
            f = tavrix.FragmentDescriptors(lmax=4, ds="TF", fmin=2, atom_labels=False, n_jobs=2)
            self.assertEqual(clone(f).get_params(), f.get_params())
        except ImportError:
            pass
        X = Inputs.get() / "nci200.sdf"
        f = tavrix.FragmentDescriptors(lmax=5).fit(X)
        copy = pickle.loads(pickle.dumps(f))
        assert_same(self, copy.transform(X), f.transform(X), "transform of the unpickled copy")
        self.assertEqual(list(copy.get_feature_names_out()), list(f.get_feature_names_out()))

    def test_without_scikit_learn(self):
        code = "import sys, pickle; sys.modules['sklearn'] = None; import tavrix; " \
               "f = tavrix.FragmentDescriptors(lmax=2).set_params(fmin=2); " \
               "X = pickle.loads(pickle.dumps(f.fit(sys.argv[1]))).transform(sys.argv[1]); " \
               "print(f.get_params()['fmin'], X.shape)"
        run = subprocess.run([sys.executable, "-c", code, str(SOURCE / "tests/data/example/example.sdf")],
                             capture_output=True, text=True)
        self.assertEqual(run.returncode, 0, run.stderr)
        self.assertRegex(run.stdout, r"^2 \(3, \d+\)")

    def test_three_threads_at_once(self):
        X, Y = Inputs.get() / "nci200.sdf", Inputs.get() / "cdk2.sdf"
        f = tavrix.FragmentDescriptors(lmax=6).fit(X)
        calls = {"X": lambda: f.transform(X), "Y": lambda: f.transform(Y),
                 "fit": lambda: tavrix.FragmentDescriptors(lmax=5).fit_transform(Y)}
        want = {key: call() for key, call in calls.items()}
        for attempt in range(3):
            got = {}
            threads = [threading.Thread(target=lambda k=key, c=call: got.update({k: c()}))
                       for key, call in calls.items()]
            for t in threads:
                t.start()
            for t in threads:
                t.join()
            for key in want:
                assert_same(self, got[key], want[key], f"attempt {attempt}, {key}")


def run_example(*args):
    env = dict(os.environ, PYTHONPATH=os.pathsep.join(p for p in sys.path if p))
    return subprocess.run([sys.executable, *map(str, args)], capture_output=True, text=True, env=env, timeout=300)


class Examples(unittest.TestCase):
    """The README's examples run and say what it says they say."""

    def test_qsar_example(self):
        run = run_example(EXAMPLES / "qsar_example.py")
        self.assertEqual(run.returncode, 0, run.stderr)
        self.assertRegex(run.stdout, r"Tavrix fragments \(lmax=5\): r2 = 0\.\d+")
        self.assertRegex(run.stdout, r"RDKit Morgan counts \(radius 2\): r2 = 0\.\d+")

    def test_dask_partitions_give_the_single_process_matrix(self):
        try:
            from dask.distributed import LocalCluster  # noqa: F401
        except ImportError:
            self.skipTest("needs dask.distributed (Debian: python3-distributed)")
        run = run_example(EXAMPLES / "dask_example.py", Inputs.get() / "nci200.sdf", 4)
        if run.returncode != 0 and "same as one process" not in run.stdout and "Nanny failed to start" in run.stderr:
            self.skipTest("dask.distributed could not start worker processes here:\n" + run.stderr[-2000:])
        self.assertEqual(run.returncode, 0, run.stderr)
        self.assertIn("200 compounds", run.stdout)
        self.assertIn("same as one process", run.stdout)


class Install(unittest.TestCase):
    """cmake --install puts an importable package where python3 looks under the prefix."""

    def test_install_into_a_prefix(self):
        with tempfile.TemporaryDirectory() as prefix:
            subprocess.run(["cmake", "--install", str(BUILD), "--prefix", prefix], check=True, capture_output=True)
            site = pathlib.Path(prefix) / f"lib/python{sys.version_info[0]}.{sys.version_info[1]}/site-packages"
            code = "import tavrix, sys; print(tavrix.__file__); " \
                   "print(tavrix.FragmentDescriptors(lmax=2).fit_transform(sys.argv[1]).shape)"
            run = subprocess.run([sys.executable, "-c", code, str(SOURCE / "tests/data/example/example.sdf")],
                                 capture_output=True, text=True, env=dict(os.environ, PYTHONPATH=str(site)))
            self.assertEqual(run.returncode, 0, run.stderr)
            self.assertTrue(run.stdout.startswith(str(site)), run.stdout)
            self.assertIn("(3, ", run.stdout)
