"""Tavrix fragment descriptors for Python.

FragmentDescriptors is a scikit-learn transformer: fit counts the acyclic
fragments of a set of compounds exactly as the Tavrix program does and keeps
the fragments that become descriptors; transform counts those descriptors in
other compounds. Matrices are scipy.sparse.csr_matrix of int32 counts, one
row per compound, column j for descriptor j + 1.
"""

import os
import tempfile

import numpy as np
import scipy.sparse

from . import _core

try:
    from sklearn.base import BaseEstimator, TransformerMixin
    from sklearn.exceptions import NotFittedError
except ImportError:  # scikit-learn is optional: the same interface by hand
    class BaseEstimator:
        _PARAMS = ("lmin", "lmax", "ds", "fmin", "atom_labels", "bond_labels", "n_jobs")

        def get_params(self, deep=True):
            return {name: getattr(self, name) for name in self._PARAMS}

        def set_params(self, **params):
            for name, value in params.items():
                if name not in self._PARAMS:
                    raise ValueError(f"invalid parameter {name!r} for {type(self).__name__}")
                setattr(self, name, value)
            return self

    class TransformerMixin:
        def fit_transform(self, X, y=None, **fit_params):
            return self.fit(X, y, **fit_params).transform(X)

    class NotFittedError(ValueError, AttributeError):
        pass

__all__ = ["FragmentDescriptors"]

_FRAGMENT_TYPES = ("QZ", "TF", "PF")
# Bond labels of the records as written in names; ':' is aromatic as in
# SMILES, and '~' stands for the Mol2 amide bond, which has no SMILES symbol.
_BOND_SYMBOLS = {"-": "-", "=": "=", "#": "#", "~": ":", "*": "~"}


def _is_mol2_name(name):
    # The program's rule: the character right after the first '.' of the
    # name as given is a lower-case 'm'.
    dot = name.find(".")
    return dot != -1 and name[dot + 1:dot + 2] == "m"


def _molecule_blocks(items):
    """SD text of a list of RDKit molecules or SMILES strings."""
    try:
        from rdkit import Chem
    except ImportError as error:
        raise ImportError("molecules and SMILES need RDKit (Debian: python3-rdkit)") from error
    blocks = []
    for position, item in enumerate(items):
        mol = item
        if isinstance(item, str):
            mol = Chem.MolFromSmiles(item)
            if mol is None:
                raise ValueError(f"SMILES at position {position} could not be parsed: {item!r}")
        elif not isinstance(item, Chem.Mol):
            raise ValueError(f"item at position {position} is neither an RDKit molecule nor a SMILES string")
        blocks.append(Chem.MolToMolBlock(mol, kekulize=True, forceV3000=False))
        blocks.append("$$$$\n")
    return "".join(blocks)


def _source(X):
    """(name, text, mol2) for the core: a file by its name, or text."""
    if isinstance(X, os.PathLike):
        X = os.fspath(X)
        if isinstance(X, bytes):
            X = os.fsdecode(X)
    if isinstance(X, str):
        if not os.path.exists(X) and "\n" in X:
            return "SD text", X.encode("utf-8", "surrogateescape"), False
        # A missing file is the program's "can't open a file" refusal.
        if X.find(".") == -1:
            raise ValueError("Input filename does not have either .sdf or .mol2 as extention")
        return X, None, _is_mol2_name(X)
    if isinstance(X, (bytes, bytearray)):
        raise ValueError("give SD text as str, or a path, a list of RDKit molecules or a list of SMILES")
    try:
        items = list(X)
    except TypeError:
        raise ValueError(f"cannot read compounds from {type(X).__name__}") from None
    return "SD text", _molecule_blocks(items).encode("utf-8"), False


def _matrix(result):
    indptr, indices, data, rows, columns = result
    return scipy.sparse.csr_matrix((data, indices, indptr), shape=(rows, columns), dtype=np.int32)


def _tree_name(atoms, bonds):
    """A SMILES-like string of a labelled tree, the same for every numbering.

    Atoms are [label], bonds always written. The string is decodable back to
    the tree, so different trees get different strings: children sorted by
    their own strings (the largest last, unbranched, so chains read along),
    and the least string over all roots at a leaf (or the lone atom).
    """
    n = len(atoms)
    neighbours = [[] for _ in range(n)]
    for a, b, label in bonds:
        symbol = _BOND_SYMBOLS.get(label, label)
        neighbours[a].append((b, symbol))
        neighbours[b].append((a, symbol))

    def write(atom, parent):
        children = sorted((symbol + write(child, atom) for child, symbol in neighbours[atom] if child != parent),
                          key=lambda s: (len(s), s))
        branches = "".join(f"({c})" for c in children[:-1])
        return f"[{atoms[atom]}]" + branches + (children[-1] if children else "")

    roots = [i for i in range(n) if len(neighbours[i]) <= 1] or range(n)
    return min((write(root, -1) for root in roots), key=lambda s: (len(s), s))


class FragmentDescriptors(TransformerMixin, BaseEstimator):
    """Fragment descriptors of compounds, counted as the Tavrix program counts them.

    Parameters
    ----------
    lmin, lmax : int
        Shortest and longest fragment, in bonds (``-lmin``, ``-lmax``).
    ds : {"QZ", "TF", "PF"}
        Fragment type: all acyclic fragments, tree fragments (an atom with
        three or more of the fragment's bonds), path fragments (``-ds``).
    fmin : int
        A fragment becomes a descriptor when it occurs in at least fmin of
        the compounds given to fit (``-fmin``).
    atom_labels : bool
        False: Mol2 atom types reduced to their element (``-NoAtmLabels``).
    bond_labels : bool
        False: every bond gets the same label (``-NoBndLabels``).
    n_jobs : int or None
        Threads that count compounds in fit, fit_transform and transform, by
        scikit-learn's convention: None for one, -1 for every processor this
        process may run on, k > 0 for k (up to 1024). The matrices and
        structures_ are the same for every value. Calls run without the GIL,
        so calls from several Python threads run at once too.

    Inputs: the path of an SD or Mol2 file (str or pathlib.Path; Mol2 when
    the character after the first '.' of the name is a lower-case 'm'), SD
    text (a str that is not an existing path and holds a line feed), or a
    list of RDKit molecules or SMILES strings (passed on as V2000 Kekulé
    molblocks with the hydrogens the molecule holds).

    Memory: fit keeps the compounds' fragment counts in memory up to 32 MB,
    as the program does, and the rest in a temporary file in
    tempfile.gettempdir() that has no name from the moment it is made, so
    nothing is left on disk however the call ends. Nothing else is written.

    Attributes after fit: ``structures_`` (the structure record of each
    descriptor, as the program's structure file holds it), ``mol2_``
    (whether they are Mol2 records), ``n_features_out_``.
    """

    def __init__(self, lmin=1, lmax=7, ds="QZ", fmin=1, atom_labels=True, bond_labels=True, n_jobs=None):
        self.lmin = lmin
        self.lmax = lmax
        self.ds = ds
        self.fmin = fmin
        self.atom_labels = atom_labels
        self.bond_labels = bond_labels
        self.n_jobs = n_jobs

    def _settings(self):
        if self.ds not in _FRAGMENT_TYPES:
            raise ValueError(f"ds must be one of {', '.join(_FRAGMENT_TYPES)}, not {self.ds!r}")
        numbers = {"lmin": self.lmin, "lmax": self.lmax, "fmin": self.fmin}
        for name, value in numbers.items():
            # The command line takes digits only, up to the largest 32-bit int.
            if isinstance(value, bool) or not isinstance(value, (int, np.integer)) or not 0 <= value <= 2**31 - 1:
                raise ValueError(f"{name} must be an integer from 0 to 2147483647, not {value!r}")
        return dict(ds=self.ds, lmin=int(self.lmin), lmax=int(self.lmax), fmin=int(self.fmin),
                    atom_labels=bool(self.atom_labels), bond_labels=bool(self.bond_labels))

    def _threads(self):
        n_jobs = self.n_jobs
        if n_jobs is None:
            return 1
        if isinstance(n_jobs, bool) or not isinstance(n_jobs, (int, np.integer)) or not (
                n_jobs == -1 or 1 <= n_jobs <= 1024):
            raise ValueError(f"n_jobs must be None, -1 or an integer from 1 to 1024, not {n_jobs!r}")
        return _core.processors_available() if n_jobs == -1 else int(n_jobs)

    def fit(self, X, y=None):
        """Finds the descriptors of the compounds X."""
        self.fit_transform(X)
        return self

    def fit_transform(self, X, y=None):
        """Finds the descriptors of X and returns X's count matrix, as a run's descriptor file gives it."""
        settings = self._settings()
        threads = self._threads()
        name, text, mol2 = _source(X)
        structures, result = _core.fit(name, text, mol2, **settings, threads=threads,
                                       spill_directory=tempfile.gettempdir())
        space = _core.Space(structures)
        self.structures_ = [r.decode("utf-8", "surrogateescape") for r in space.records]
        self.mol2_ = mol2
        self.n_features_out_ = len(self.structures_)
        self._fitted_settings = settings
        self._space = space
        self._names = None
        return _matrix(result)

    def _check_fitted(self):
        if not hasattr(self, "structures_"):
            raise NotFittedError(f"this {type(self).__name__} is not fitted yet; call fit first")

    def _fitted_space(self):
        # Rebuilt from the records after unpickling.
        if self._space is None:
            self._space = _core.Space("".join(self.structures_).encode("utf-8", "surrogateescape"))
        return self._space

    def transform(self, X):
        """Counts the fitted descriptors in the compounds X: one row per compound."""
        self._check_fitted()
        threads = self._threads()
        name, text, mol2 = _source(X)
        if mol2 != self.mol2_:
            fitted, given = ("Mol2", "SD") if self.mol2_ else ("SD", "Mol2")
            raise ValueError(f"the descriptors were fitted on {fitted} input, {name} is {given}: "
                             "their labels cannot match")
        return _matrix(self._fitted_space().apply(name, text, mol2, **self._fitted_settings, threads=threads))

    def get_feature_names_out(self, input_features=None):
        """A readable, unique name per descriptor: its fragment as a SMILES-like string.

        Atoms as [label] (element symbols, or Mol2 types such as [C.ar]),
        bonds '-', '=', '#', ':' (aromatic), '~' (Mol2 amide), branches in
        parentheses. Should two descriptors stand for one labelled tree,
        their names get " #<descriptor number>" appended.
        """
        self._check_fitted()
        if self._names is None:
            names = [_tree_name([a.decode("utf-8", "replace") for a in atoms], bonds)
                     for atoms, bonds in self._fitted_space().fragments]
            seen = {}
            for name in names:
                seen[name] = seen.get(name, 0) + 1
            self._names = [name if seen[name] == 1 else f"{name} #{number}"
                           for number, name in enumerate(names, start=1)]
        return np.array(self._names, dtype=object)

    def __getstate__(self):
        state = dict(super().__getstate__())
        # The parsed space is a C++ object: rebuilt from structures_ on use.
        state["_space"] = None
        return state
