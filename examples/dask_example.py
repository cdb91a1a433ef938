"""A fitted FragmentDescriptors transforming a large SD file in partitions on
a Dask cluster: the matrix is exactly the one a single process gives.

The transformer travels to the workers pickled (its descriptors are its
structure records); each worker reads whole records only, so the partitions
split the text right after "$$$$" lines.

    /usr/bin/python3 examples/dask_example.py compounds.sdf [partitions]
"""
import re
import sys

import dask
import scipy.sparse
from dask.distributed import Client, LocalCluster

from tavrix import FragmentDescriptors


def sd_partitions(text, parts):
    """About equal pieces of SD text, each ending at a record end."""
    ends = [m.end() for m in re.finditer(r"^\$\$\$\$\r?\n", text, re.M)]
    if not ends or ends[-1] != len(text):
        ends.append(len(text))  # a last record without "$$$$", or none at all
    size = -(-len(ends) // parts)  # records per piece, rounded up
    starts = [0] + ends[size - 1:-1:size]
    stops = ends[size - 1:-1:size] + [len(text)]
    return [text[a:b] for a, b in zip(starts, stops)]


def transform_on_dask(fitted, text, parts):
    """fitted.transform(text), computed per partition on the current Dask scheduler."""
    shared = dask.delayed(fitted)  # sent to each worker once, not once per task
    tasks = [dask.delayed(FragmentDescriptors.transform)(shared, piece) for piece in sd_partitions(text, parts)]
    return scipy.sparse.vstack(dask.compute(*tasks), format="csr")


if __name__ == "__main__":
    path, parts = sys.argv[1], int(sys.argv[2]) if len(sys.argv) > 2 else 4
    with open(path, encoding="utf-8", errors="surrogateescape") as f:
        text = f.read()
    fitted = FragmentDescriptors(lmax=5).fit(text)
    with LocalCluster(n_workers=2, threads_per_worker=1, processes=True) as cluster, Client(cluster):
        X = transform_on_dask(fitted, text, parts)
    single = fitted.transform(text)
    print(f"{X.shape[0]} compounds x {X.shape[1]} descriptors in {parts} partitions;",
          "same as one process" if (X != single).nnz == 0 and X.shape == single.shape else "DIFFERENT")
