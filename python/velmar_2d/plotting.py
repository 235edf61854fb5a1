"""Pictures with matplotlib."""
from __future__ import annotations

from typing import Any

import numpy as np

from .nodes import Nodes


def plot(nodes: Nodes, rectangle: tuple[float, float, float, float], what: str, colour: Any, *,
         ax: Any, component: int, colorbar: bool, ticks: Any, cmap: Any, **style: Any) -> Any:
    """See Mesh.plot()."""
    draw = {"links": _links, "cells": _cells, "field": _field}.get(what)
    if draw is None:
        raise ValueError(f"what is {what!r}; it must be 'links', 'cells' or 'field'")
    try:
        from matplotlib import pyplot
    except ImportError as error:
        raise ImportError("plot() needs matplotlib (Debian: python3-matplotlib)") from error
    values, label = _colours(nodes, colour, component)
    if values is None and what == "field":
        raise ValueError(f"a field cannot be drawn in the one colour {colour!r}; give values")
    if ax is None:
        ax = pyplot.figure().add_subplot()
    if cmap is not None:
        style["cmap"] = cmap
    drawn = draw(nodes, values, colour, ax, style)
    west, east, south, north = rectangle
    ax.set_xlim(west, east)
    ax.set_ylim(south, north)
    ax.set_aspect("equal")
    if colorbar and values is not None:
        _show_colorbar(ax, drawn, label, ticks)
    return ax


def _show_colorbar(ax: Any, drawn: Any, label: str, ticks: Any) -> None:
    """Shows what was drawn in the colour bar of these Axes; makes it the first time."""
    bar = getattr(ax, "_velmar_2d_colorbar", None)
    if bar is None or bar.ax not in ax.figure.axes:
        bar = ax._velmar_2d_colorbar = ax.figure.colorbar(drawn, ax=ax)
    else:
        drawn.autoscale_None()
        bar.update_normal(drawn)
    bar.set_label(label)
    if ticks is not None:
        bar.set_ticks(ticks)
    elif label == "level":
        from matplotlib.ticker import MaxNLocator
        bar.locator = MaxNLocator(integer=True)
        bar.update_ticks()


def _colours(nodes: Nodes, colour: Any, component: int) -> tuple[Any, str]:
    """One number for each node and what they are; or None, where there is one colour for all."""
    if isinstance(colour, str):
        if colour == "level":
            return nodes.levels, "level"
        if colour == "value":
            n_cell_data = nodes.data.shape[1]
            if n_cell_data == 0:
                raise ValueError("the nodes have no data values to draw (n_cell_data is 0)")
            if not 0 <= component < n_cell_data:
                raise ValueError(f"component is {component}; the nodes have {n_cell_data} data "
                                 f"values, 0 to {n_cell_data - 1}")
            return nodes.data[:, component], f"value {component}" if component > 0 else "value"
        return None, ""
    if colour is None or (isinstance(colour, tuple) and len(colour) in (3, 4) != len(nodes)):
        return None, ""
    values = np.asarray(colour, dtype=np.float64)
    if values.shape != (len(nodes),):
        raise ValueError(f"colour has shape {values.shape}; "
                         f"{len(nodes)} nodes need ({len(nodes)},)")
    return values, ""


def _collection(kind: Any, parts: Any, values: Any, colour: Any, ax: Any,
                style: dict[str, Any]) -> Any:
    limits = style.pop("vmin", None), style.pop("vmax", None)
    collection = kind(parts, array=values, **style)
    if values is None:
        collection.set_color("black" if colour is None else colour)
    else:
        collection.set_clim(*limits)
    return ax.add_collection(collection)


def _links(nodes: Nodes, values: Any, colour: Any, ax: Any, style: dict[str, Any]) -> Any:
    from matplotlib.collections import LineCollection
    start = np.repeat(np.arange(len(nodes)), 8)
    end = nodes.links.ravel()
    once = end > start
    start, end = start[once], end[once]
    if values is not None:  # the colour of the finer end
        finer = np.where(nodes.levels[end] > nodes.levels[start], end, start)
        values = values[finer]
    style.setdefault("linewidths", 0.6)
    return _collection(LineCollection, nodes.positions[np.stack((start, end), axis=1)], values,
                       colour, ax, style)


def _cells(nodes: Nodes, values: Any, colour: Any, ax: Any, style: dict[str, Any]) -> Any:
    from matplotlib.collections import PolyCollection
    offsets, vertices = nodes.polygons
    style.setdefault("linewidths", 0.3)
    if values is None:
        style.setdefault("facecolors", "none")
        collection = PolyCollection(np.split(vertices, offsets[1:-1]), **style)
        collection.set_edgecolor("black" if colour is None else colour)
        return ax.add_collection(collection)
    style.setdefault("edgecolors", "face")
    return _collection(PolyCollection, np.split(vertices, offsets[1:-1]), values, colour, ax, style)


def _field(nodes: Nodes, values: Any, colour: Any, ax: Any, style: dict[str, Any]) -> Any:
    from matplotlib.tri import Triangulation
    style.setdefault("shading", "gouraud")
    return ax.tripcolor(Triangulation(nodes.x, nodes.y, nodes.triangles), values, **style)
