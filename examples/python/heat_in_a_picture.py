"""Heat that spreads through a picture: from pixels to an adapted mesh, a solution and an animation.

The picture is a plate. Bright places conduct heat well, dark ones badly. The left side is hot, no
heat leaves through the others. The mesh is fine where the conductivity jumps, which the picture
tells, and where the temperature bends, which only the solution tells; so it is adapted before every
frame.

    python3 heat_in_a_picture.py                          two discs and a bar, written to heat.gif
    python3 heat_in_a_picture.py photo.png -o photo.gif   any PNG file

Prints a line for every tenth frame and ends with lines such as

    frame 40: 9892 nodes, mean temperature 0.379
    heat.gif: 40 frames
"""
import argparse

import matplotlib
import numpy as np
from scipy import ndimage, sparse
from scipy.sparse.linalg import spsolve

import velmar_2d

matplotlib.use("Agg")
from matplotlib import animation, pyplot  # noqa: E402

HOT = 1.0


class Plate:
    """Brightness on pixels, seen as functions of x and y on a rectangle of height 1."""

    def __init__(self, brightness):
        rows, columns = brightness.shape
        self.width = columns / rows
        self.pixel = 1.0 / rows
        self.brightness = ndimage.gaussian_filter(brightness, 1.0)
        # How far it is from every pixel to the next edge: spacing may grow with that distance.
        steepness = ndimage.gaussian_gradient_magnitude(brightness, 1.0)
        self.to_edge = ndimage.distance_transform_edt(steepness < 0.05) * self.pixel

    def at(self, pixels, x, y):
        """Values of the pixels that lie at places. The first row of pixels is the upper one."""
        rows, columns = pixels.shape
        row = np.clip((1.0 - y) / self.pixel, 0, rows - 1).astype(int)
        column = np.clip(x / self.pixel, 0, columns - 1).astype(int)
        return pixels[row, column]

    def conductivity(self, x, y):
        return 0.01 + self.at(self.brightness, x, y) ** 2


def two_discs_and_a_bar(rows=240):
    """A picture for those who bring none."""
    y, x = np.mgrid[1.0:0.0:rows * 1j, 0.0:1.5:int(1.5 * rows) * 1j]
    bright = np.full(x.shape, 0.8)
    bright[np.hypot(x - 0.5, y - 0.68) < 0.22] = 0.05
    bright[np.hypot(x - 0.9, y - 0.30) < 0.18] = 0.15
    bright[(np.abs(x - 1.2) < 0.04) & (y > 0.25)] = 0.0
    return bright


def wanted_spacing(plate, finest, tolerance):
    """A vectorised size function. It gets arrays, with all nodes of the mesh, then all new ones."""

    def size(x, y, data, grad, grad2):
        by_edges = finest + 0.25 * plate.at(plate.to_edge, x, y)
        by_curvature = np.sqrt(8.0 * tolerance / np.maximum(grad2, 1e-12))
        return np.maximum(np.minimum(by_edges, by_curvature), finest)

    return size


def advance(mesh, plate, time_step):
    """One implicit step of  du/dt = div(k grad u)  on the control cells."""
    nodes = mesh.nodes
    u = nodes.data[:, 0].copy()
    u[nodes.known] = HOT                              # where a Dirichlet side prescribes it
    k = plate.conductivity(nodes.x, nodes.y)
    flow = mesh.to_scipy_laplacian(k, per_area=False)  # through faces; nothing through other sides
    content = sparse.diags(nodes.areas / time_step)
    matrix = (content - flow).tocsr()
    free, known = np.flatnonzero(~nodes.known), np.flatnonzero(nodes.known)
    right = (content @ u)[free] - matrix[free][:, known] @ u[known]
    u[free] = spsolve(matrix[free][:, free].tocsc(), right)
    nodes.write_data(u)


def draw(mesh, ax, plate, frame):
    ax.clear()
    mesh.plot("field", "value", ax=ax, vmin=0.0, vmax=HOT, cmap="inferno", colorbar=False)
    mesh.plot("links", "white", ax=ax, linewidths=0.25, alpha=0.35)
    rows, columns = plate.brightness.shape
    ax.contour(np.linspace(0.0, plate.width, columns), np.linspace(1.0, 0.0, rows),
               plate.brightness, levels=[0.3, 0.6], colors="deepskyblue",
               linewidths=0.7)
    ax.set_title(f"frame {frame}: {len(mesh)} nodes")


def main():
    parser = argparse.ArgumentParser(description="Heat that spreads through a picture.")
    parser.add_argument("picture", nargs="?", help="a PNG file; without it two discs and a bar")
    parser.add_argument("-o", "--output", default="heat.gif", help="a .gif file")
    parser.add_argument("--frames", type=int, default=40)
    parser.add_argument("--finest", type=float, default=0.006, help="finest spacing, height is 1")
    parser.add_argument("--dpi", type=int, default=110)
    options = parser.parse_args()

    if options.picture:
        pixels = pyplot.imread(options.picture)[..., :3]
        plate = Plate(pixels.mean(axis=2) if pixels.ndim == 3 else pixels)
    else:
        plate = Plate(two_discs_and_a_bar())

    size = wanted_spacing(plate, options.finest, tolerance=2e-3)
    figure, ax = pyplot.subplots(figsize=(6.0 * plate.width / 1.4, 4.6))
    writer = animation.PillowWriter(fps=12)
    sides = {"west": velmar_2d.DIRICHLET, "north": velmar_2d.NEUMANN, "east": velmar_2d.NEUMANN,
             "south": velmar_2d.NEUMANN}
    nx = 1 + round(16 * plate.width)
    with velmar_2d.Mesh((0.0, (nx - 1) / 16.0, 0.0, 1.0), nx=nx, ny=17, subdiv_max=12,
                        bc_type=sides) as mesh, \
            writer.saving(figure, options.output, dpi=options.dpi):
        mesh.resolve(size)                            # the picture alone: u is still 0
        time_step = 0.002
        for frame in range(1, options.frames + 1):
            mesh.resolve(size, margin=0.5)            # new nodes get interpolated temperatures
            advance(mesh, plate, time_step)
            time_step *= 1.08                         # quick at first, slow in the end
            draw(mesh, ax, plate, frame)
            writer.grab_frame()
            if frame % 10 == 0 or frame == options.frames:
                nodes = mesh.nodes
                mean = nodes.areas @ nodes.data[:, 0] / nodes.areas.sum()
                print(f"frame {frame}: {len(mesh)} nodes, mean temperature {mean:.3f}")
    print(f"{options.output}: {options.frames} frames")


if __name__ == "__main__":
    main()
