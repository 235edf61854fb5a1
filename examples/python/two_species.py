"""Two species in a closed dish: v lives on u and grows into a flower, and nothing is lost.

    du/dt = D_u div grad u - r        r = u v^2 / (1 + s v^2) - v
    dv/dt = D_v div grad v + r

Two v turn a u into a third one, and v decays back to u. The reaction only exchanges, no side lets
anything through: the sum of u + v over the dish cannot change. In the program it does not either.
What flows through a face of a control cell leaves one cell and enters the other, and where nodes
come and go the mesh hands on what their cells hold (transfer = "conservative").

    python3 two_species.py                    the picture goes to two_species.png
    python3 two_species.py -o flower.png      or elsewhere
    python3 two_species.py run.h5             keeps the run in a file; whenever it is killed, the
                                              same command goes on from there, with the same bits

Prints a table and ends with the lines

    the sum of u + v changed by less than 1e-12 of itself in 500 updates
    fingerprint of all values: (16 digits, the same however often the run was killed)
"""
import argparse
import hashlib
import os

import matplotlib
import numpy as np

import velmar_2d

matplotlib.use("Agg")
from matplotlib import pyplot  # noqa: E402

DIFFUSION = np.array([0.05, 2.0])       # of v and u: the mesh looks at the derivatives of the first
SATURATION = 0.03
HALF_WIDTH = 20.0                       # of the dish
FOOD = 2.5                              # u in the whole dish, at first
TIME_BETWEEN_UPDATES = 0.2


def outside_drop(x, y):
    """How far places lie outside the first drop of v, about."""
    return np.hypot(x, y) / (1.0 + 0.3 * np.cos(7 * np.arctan2(y, x) + 0.3)) - 3.0


def spacing(x, y, data, grad, grad2):
    """The spacing at which linear interpolation of v errs by about 0.1."""
    return np.sqrt(8.0 * 0.1 / np.maximum(grad2, 1e-9))


def exchange(v, u):
    square = v * v
    return u * square / (1.0 + SATURATION * square) - v


def total(nodes):
    """What of both species together is in the dish."""
    return (nodes.areas @ nodes.data).sum()


def advance(nodes, time):
    """Explicit finite volumes on the control cells, in as many steps as stability wants."""
    faces, areas, n = nodes.faces, nodes.areas, len(nodes)
    inside = faces.b >= 0               # the others are pieces of sides
    a, b = faces.a[inside], faces.b[inside]
    weight = faces.length[inside] / faces.distance[inside]
    leaving = np.bincount(a, weight, n) + np.bincount(b, weight, n)
    steps = int(np.ceil(time * DIFFUSION.max() * (leaving / areas).max() / 0.9))
    step = time / steps
    species = nodes.data.T.copy()       # v, u
    for _ in range(steps):
        change = step * exchange(*species) * np.array([[1.0], [-1.0]])
        for values, gain, diffusion in zip(species, change, DIFFUSION):
            flow = diffusion * weight * (values[a] - values[b])
            gain += step * (np.bincount(b, flow, n) - np.bincount(a, flow, n)) / areas
        species += change
    nodes.write_data(species.T)


def begin():
    """A mesh with a drop of v in its middle."""
    mesh = velmar_2d.Mesh((-HALF_WIDTH, HALF_WIDTH, -HALF_WIDTH, HALF_WIDTH), nx=17, subdiv_max=6,
                          n_cell_data=2, bc_type=velmar_2d.NEUMANN)
    mesh.transfer = "conservative"
    mesh.resolve(lambda x, y, *_: 0.2 + 0.2 * np.abs(outside_drop(x, y)))
    x, y = mesh.nodes.positions.T
    drop = 2.5 * (1.0 - np.tanh(outside_drop(x, y)))
    mesh.nodes.write_data(np.stack((drop, np.full(len(mesh), FOOD)), axis=1))
    return mesh


def fingerprint(nodes):
    """Differs where any bit of any place or value does."""
    return hashlib.sha256(nodes.positions.tobytes() + nodes.data.tobytes()).hexdigest()[:16]


def main():
    parser = argparse.ArgumentParser(description="Two species in a closed dish.")
    parser.add_argument("saved", nargs="?", help="a file that keeps the run")
    parser.add_argument("-o", "--output", default="two_species.png", help="the picture")
    parser.add_argument("--updates", type=int, default=500)
    options = parser.parse_args()

    if options.saved and os.path.exists(options.saved):
        mesh = velmar_2d.Mesh.load(options.saved)
        done, total_at_first, largest_change = velmar_2d.load_arrays(options.saved)["run"]
        print(f"going on after update {done:.0f}")
    else:
        mesh = begin()
        done, total_at_first, largest_change = 0, total(mesh.nodes), 0.0

    with mesh:
        for update in range(int(done) + 1, options.updates + 1):
            mesh.resolve(spacing, margin=0.5)
            advance(mesh.nodes, TIME_BETWEEN_UPDATES)
            change = abs(total(mesh.nodes) / total_at_first - 1.0)
            largest_change = max(largest_change, change)
            if update % 50 == 0:
                print(f"update {update}: {len(mesh)} nodes, the sum changed by {change:.1e}")
            if options.saved and update % 20 == 0:
                mesh.save(options.saved, {"run": [update, total_at_first, largest_change]},
                          time=update * TIME_BETWEEN_UPDATES, data_names=["v", "u"])

        _, ax = pyplot.subplots(figsize=(7.0, 6.0))
        mesh.plot("field", "value", ax=ax, cmap="magma")
        mesh.plot("links", "white", ax=ax, linewidths=0.25, alpha=0.35)
        ax.figure.savefig(options.output, dpi=100)
        less = "less" if largest_change < 1e-12 else "more"
        print(f"the sum of u + v changed by {less} than 1e-12 of itself in {options.updates} updates")
        print(f"fingerprint of all values: {fingerprint(mesh.nodes)}")


if __name__ == "__main__":
    main()
