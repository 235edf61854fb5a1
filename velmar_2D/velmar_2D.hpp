// velmar_2d: a node-based adaptive mesh of a rectangle, inside your own process.
//
// The life of a mesh
// ------------------
//   1. Fill in the side records. The four Dirichlet ones hold the rectangle and must exist:
//          static velmar_2d::Boundary north{1.0}, east{1.0}, south{0.0}, west{0.0};
//          velmar_2d::north_boundary_dir = &north;      // and east, south, west
//   2. init_mesh(bc_type, nx, ny, subdiv_max, y_max)    makes a uniform grid of level 0.
//   3. resolve_mesh_no_init(size_fun)                   adapts it to the spacing you want,
//      or resolve_mesh_init(size_fun, init_data)        as often as you like.
//   4. Walk the nodes:  for (Cell* c = mesh_beg; c != nullptr; c = c->next) ...
//   5. delete_mesh()                                    and, if you wish, start again at 1.
//
// Directions, levels and the records are drawn and described in records.hpp.
//
// Conventions
// -----------
// All state here is library-wide: this is the window of one default mesh. Any number of others are
// objects, see mesh.hpp; all rules are the same. Messages go to standard output; after a fatal one
// the process ends with EXIT_FAILURE. Both can be taken over, see fatal_handler. Callbacks and
// handlers may read the mesh; to call what changes it from there is such a fatal error. They may
// throw. The library owns the nodes; the caller owns the Boundary records and the callbacks.
//
// Threads: one at a time may call what changes the mesh, and none may read it meanwhile. While no
// one changes the mesh or its data, any number of threads may call what is marked "Readers" below.
#pragma once

#include "velmar_2D/records.hpp"

namespace velmar_2d {

// ---------------------------------------------------------------------------------------------
// Messages and the end of the process
// ---------------------------------------------------------------------------------------------

/// Called with the whole message (lines separated by line ends, none after the last) before a fatal
/// error ends the process. Empty at first. This and the two handlers below are also those of every
/// Mesh that has none of its own.
///
/// Where it returns, the message is printed and the process ends as usual. It may leave by an
/// exception instead: then nothing is printed, and the call that failed is left by that exception.
/// It may read the mesh, which can be in the split state, but not call what changes it.
///
/// The mesh is whole after every exit by an exception, be it from here or from one of the caller's
/// own callbacks: a node is in it with all its links or not at all, and update_mesh_*(),
/// resolve_mesh_*() and set_subdiv_max() leave their list joined. init_mesh() makes all or no node.
VELMAR_2D_API extern text_function& fatal_handler;

/// Takes the place of standard output: called with each message (without the line end after its
/// last line), fatal ones included. Empty at first. It may throw, as fatal_handler may.
VELMAR_2D_API extern text_function& message_handler;

/// Takes the place of the pauses: called with the prompt, which is then not printed, and returns
/// when the library may go on. Empty at first: print the prompt and wait for a line of standard
/// input or for its end. It may throw, as fatal_handler may.
VELMAR_2D_API extern text_function& pause_handler;

// ---------------------------------------------------------------------------------------------
// Library-wide state
// ---------------------------------------------------------------------------------------------

// Node list. It runs by stretches: first all nodes with ipos 0, then those with ipos 1, and so on.
VELMAR_2D_API extern Cell *&mesh_beg, *&mesh_end;
/// First and last node of each stretch, indexed by ipos; empty while there is no mesh.
VELMAR_2D_API VELMAR_2D_WITH_VECTORS extern std::vector<Handle>&level_beg, &level_end;
/// A second pair of list heads for the caller; the library neither reads nor writes them.
VELMAR_2D_API VELMAR_2D_WITH_VECTORS extern std::vector<Handle>&tmp_beg, &tmp_end;
/// Lowest and highest stretch that holds nodes, kept by join_sublists(); -1 first where none does.
VELMAR_2D_API extern std::array<std::int32_t, 2>& level_range;
VELMAR_2D_API extern std::int32_t& level_max;  ///< subdivision limit, -1 before the first mesh;
                                               ///< changed by set_subdiv_max() alone
VELMAR_2D_API extern std::int64_t& next_id;    ///< id of the next node created
VELMAR_2D_API extern std::int32_t&
    nb_nodes;  ///< number of nodes; a mesh exists while it is above 0
/// Grows whenever a node comes or goes, and with that wherever a link or a level changes: what a
/// caller derived from the mesh is current while this number is. An update can remove nodes and
/// insert others at the same places; references to the old ones are then as invalid as ever, and
/// the number has grown. Never falls while the process lives.
VELMAR_2D_API extern std::uint64_t& mesh_revision;
/// What the last update_mesh_*() did, also where it ended by an exception.
VELMAR_2D_API extern UpdateStatistics& update_statistics;
VELMAR_2D_API extern std::int32_t&
    n_cell_data;                             ///< data values per node; set it before init_mesh()
VELMAR_2D_API extern double &x_min, &y_min;  ///< lower left corner of the domain
VELMAR_2D_API extern double& dist_0;         ///< spacing of the grid of level 0
VELMAR_2D_API extern double &grad_data, &grad2_data;  ///< scratch values for the caller
/// Whether the data of new nodes are interpolated (true) or come from init_data_ptr (false).
VELMAR_2D_API extern bool& data_interpolation;
/// What becomes of data values where nodes come and go.
VELMAR_2D_API extern Transfer& data_transfer;
/// Called for each node that comes or goes.
VELMAR_2D_API extern NodeHooks& node_hooks;
/// Told how far an update has come. Throws to leave it.
VELMAR_2D_API extern progress_function& progress_handler;
/// What update_mesh_init() was given, and still there when it has returned: insertions of the
/// caller's own ask it for the data of new nodes, until update_mesh_no_init() empties it. What it
/// refers to must live as long, or be taken from here. What the library inserts on its own, while
/// the limit is lowered, is interpolated.
VELMAR_2D_API extern init_data_function& init_data_ptr;
VELMAR_2D_API extern bc_type_function& bc_type_ptr;

// Side records, owned by the caller. The four Dirichlet ones must exist for init_mesh().
VELMAR_2D_API extern Boundary *&north_boundary_dir, *&north_boundary_neu, *&north_boundary_oth;
VELMAR_2D_API extern Boundary *&east_boundary_dir, *&east_boundary_neu, *&east_boundary_oth;
VELMAR_2D_API extern Boundary *&south_boundary_dir, *&south_boundary_neu, *&south_boundary_oth;
VELMAR_2D_API extern Boundary *&west_boundary_dir, *&west_boundary_neu, *&west_boundary_oth;

// ---------------------------------------------------------------------------------------------
// Making, adapting and deleting the mesh
// ---------------------------------------------------------------------------------------------

/// Makes a uniform grid of nx by ny nodes of level 0.
///
/// Needs: no mesh; the four Dirichlet records, whose `c` give the rectangle. Every node gets
/// n_cell_data values of 0.0. The cells are squares of the width (x_max - x_min) / (nx - 1); where
/// the height does not fit, the north side is moved, its records and `y_max` are updated, a warning
/// is printed and RETURN awaited.
/// Ends the process, after a message: a mesh exists, a record is missing, nx or ny is below 2, the
/// rectangle is empty or its cells are lost in the rounding of its coordinates, cells are below
/// 1e-60 wide or coordinates beyond 1e60, subdiv_max is negative or deeper than positions can be
/// told apart, bc_type is empty or selects no record.
///
/// @param bc_type     kind of condition on each side, kept for later insertions on the sides
/// @param nx, ny      number of nodes along x and y, at least 2
/// @param subdiv_max  subdivision limit: the highest level that a node may have; up to 60, and to
///                    2 k where dist_0 / 2^k is still 64 roundings of the largest coordinate
/// @param y_max       receives the upper y of the domain in use
VELMAR_2D_API void init_mesh(bc_type_function bc_type, std::int32_t nx, std::int32_t ny,
                             std::int32_t subdiv_max, double& y_max);

/// Adapts the mesh to the spacing that size_fun wants; data of new nodes come from init_data.
///
/// First the derivatives of data[0] are computed at every node. Then stretches are walked upwards,
/// inserting nodes where the wanted level 2 log2(dist_0 / size) exceeds a node's level, and
/// downwards, removing nodes whose level exceeds the wanted one by more than 1.05. Nodes may stay
/// too coarse however often it is called, the more the faster sizes grow: see resolve_mesh_init().
/// References to removed nodes are invalid afterwards; all others stay good.
/// Ends the process if there is no mesh or a callback that is needed is empty.
/// Cost: linear in the number of nodes.
VELMAR_2D_API void update_mesh_init(const size_function& size_fun, init_data_function init_data);

/// As update_mesh_init(), but data[0] of new nodes is interpolated from their neighbours, and
/// derivatives are computed only where n_cell_data is above 0.
VELMAR_2D_API void update_mesh_no_init(const size_function& size_fun);

/// As update_mesh_init(), with one call of size_fun for each stretch that holds nodes and each of
/// the two passes, before the pass walks it. The nodes of a batch come in the order of the walk,
/// those that the pass has inserted with the later stretches. The mesh is the same as with a
/// size_function that gives the same spacings. For callers whose spacings are cheaper in bulk:
/// vectorised, computed by several threads, or asked of an interpreter.
/// Cost besides: 8 to 16 bytes a node, kept until the mesh is deleted so that the next call knows
/// the nodes at once, and 16 bytes a node of the longest stretch.
VELMAR_2D_API void update_mesh_init_batched(const batch_size_function& size_fun,
                                            init_data_function init_data);

/// As update_mesh_no_init(), asking for the wanted spacings as update_mesh_init_batched() does.
VELMAR_2D_API void update_mesh_no_init_batched(const batch_size_function& size_fun);

/// Adapts the mesh until no node is coarser than size_fun wants, with as few nodes as that takes;
/// data of new nodes come from init_data.
///
/// First the derivatives of data[0] are computed at every node. A node's wanted level is the lowest
/// one with a spacing of at most its size, to a billionth, and not above the limit. Nodes are asked
/// once each, new ones as they come; then nodes that nothing needs go. A second call with the same
/// sizes changes nothing, not even mesh_revision. Up to a slope of sizes of 0.41 the mesh depends
/// on the size function alone and not on what it was before, and up to 1.41 a point where fine
/// spacing is wanted is always found from the grid; what lies between nodes and shows at none of
/// them is missed (see Resolution::slope). A size that is negative or not a number wants the level
/// that the node has when all that others want has come.
/// References to removed nodes are invalid afterwards; all others stay good.
/// Ends the process if there is no mesh, a callback that is needed is empty, or more than
/// resolution.most_nodes nodes would be needed.
/// Cost: linear in the number of nodes; where the mesh was changed by anything else since the last
/// call, with a table of about 100 bytes a node while it is put in order.
VELMAR_2D_API void resolve_mesh_init(const size_function& size_fun, init_data_function init_data,
                                     const Resolution& resolution = {});

/// As resolve_mesh_init(), but data[0] of new nodes is interpolated from their neighbours, and
/// derivatives are computed only where n_cell_data is above 0.
VELMAR_2D_API void resolve_mesh_no_init(const size_function& size_fun,
                                        const Resolution& resolution = {});

/// As resolve_mesh_init(), with one call of size_fun for all nodes, in list order, and one for each
/// generation of new nodes, in the order in which they came. The mesh is the same, to the last bit,
/// as with a size_function that gives the same spacings. Takes 16 bytes a node while it lasts.
VELMAR_2D_API void resolve_mesh_init_batched(const batch_size_function& size_fun,
                                             init_data_function init_data,
                                             const Resolution& resolution = {});

/// As resolve_mesh_no_init(), asking for the wanted spacings as resolve_mesh_init_batched() does.
VELMAR_2D_API void resolve_mesh_no_init_batched(const batch_size_function& size_fun,
                                                const Resolution& resolution = {});

/// Changes the subdivision limit. Lowering it removes every node that lies above it; the nodes that
/// remain are coarsened around. Raising it changes no node.
///
/// A limit below 0 removes every node. Ends the process if the limit is lowered without a mesh, or
/// raised above what init_mesh() takes.
VELMAR_2D_API void set_subdiv_max(std::int32_t subdiv_max);

/// The subdivision limit: level_max.
VELMAR_2D_API std::int32_t get_subdiv_max();

/// Releases every node and the level arrays, prints " nb of deallocated nodes: " and their number.
///
/// The limit, next_id, the domain and the side records stay as they are. Works in the split state
/// too, and after any exit by an exception.
/// Ends the process if there are no level arrays (no mesh was made, or it was deleted already).
VELMAR_2D_API void delete_mesh();

// ---------------------------------------------------------------------------------------------
// Reading nodes
// ---------------------------------------------------------------------------------------------

/// Derivatives of data[0] at one node, from its neighbours: stores the gradient norm in
/// `grad_data` and the Frobenius norm of the Hessian in `grad2_data`.
///
/// Ends the process where no stencil of nodes will do: on grids of 2 by n nodes, and above level
/// 31, which counts spacings with 32-bit powers of two. A Mesh that is an object has no such level.
/// A grid of 2 by n nodes that resolve_mesh_*() has adapted has the gradient of a plane through the
/// node that fits its neighbours best, and second derivatives of 0.
/// Readers: any number of threads, also at neighbouring nodes.
///
/// @param c           a node of the mesh; one without data counts as holding 0.0
/// @param dfdx, dfdy  receive the gradient where both are given; a component across a Neumann side
///                    is then 0
VELMAR_2D_API void compute_data_at_node(Cell* c, double* dfdx = nullptr, double* dfdy = nullptr);

/// compute_data_at_node() for every node: what update_mesh_*() does first. Faster than a loop of
/// the caller's on a large mesh, since it prefetches. Joins the list if it is split; does nothing
/// without a mesh.
///
/// @param threads  how many may work at it, this one included; the results are the same to the last
///                 bit
VELMAR_2D_API void compute_data_at_all_nodes(int threads = 1);

// ---------------------------------------------------------------------------------------------
// Control cells
//
// The control cell of a node holds the points that are nearer to it than to any node it is linked
// to, cut by the domain. All of them together fill the domain without gap or overlap.
// ---------------------------------------------------------------------------------------------

/// Shape of the control cell; sets `signature` and `signature_set`.
///
/// signature[0] has a bit for every direction whose link designates a node (n 128, ne 64, e 32,
/// se 16, s 8, sw 4, w 2, nw 1), signature[1] for every face that no nearer neighbour and no domain
/// side has cut in half. docs/control_cells.md shows the shapes.
/// Where no known shape has this signature, which happens only after links were changed by hand or
/// nodes were inserted out of order: prints a warning, awaits RETURN, gives type 0 and shift 0.
/// Cost: a few nanoseconds; reads the node alone, and its neighbours only where the node is still
/// at level 0 or its links do not fit together.
/// Readers: any number of threads, at the same time and at the same node.
///
/// @param c      a node of the mesh
/// @param type   1 to 9 inside, 11 and up on a side, 31 and up at a corner of the domain
/// @param shift  eighth turns clockwise from the type's first shape, plus 8 if it was mirrored
///               east-west before
VELMAR_2D_API void cell_type(Cell* c, std::int32_t& type, std::int32_t& shift);

/// Area of the control cell, cached in `area` until the mesh around the node changes.
///
/// Where it is not cached the cell is classified as by cell_type(); a cell of unknown shape gets
/// the area of its polygon.
/// Readers: any number of threads, at the same time and at the same node.
VELMAR_2D_API double cell_area(Cell* c);

/// Faces of the control cell: length / distance is the weight of a two-point flux.
///
/// Both cells that share a face get the same length and distance, to the last bit, and the face's
/// normal is the link's direction. Changes nothing, prints nothing; cells of unknown shape get the
/// edges of their polygon, which the neighbour need not agree with.
/// Readers: any number of threads.
VELMAR_2D_API void cell_faces(const Cell* c, CellFaces& faces);

/// Corners of the control cell, anticlockwise, without repetition. Works for every shape, changes
/// nothing, prints nothing.
/// Readers: any number of threads.
///
/// @param c        a node of the mesh
/// @param corners  receives the corners in its first n entries
/// @param n        3 to max_cell_corners
VELMAR_2D_API void cell_polygon(const Cell* c, std::array<Point, max_cell_corners>& corners,
                                std::int32_t& n);

// ---------------------------------------------------------------------------------------------
// Values anywhere. For many points at once, triangles, and values from one mesh to another:
// mesh.hpp
// ---------------------------------------------------------------------------------------------

/// The node whose control cell holds a point: the nearest one. On a border between cells it is the
/// one farthest to the east, and of those the one farthest to the north. nullptr outside the
/// rectangle, for not-a-number, and where there is no mesh.
/// Cost: some 20 ns where `start` is near, such as the node of the last point; without, the walk
/// begins at the node of the first grid. Where links were broken by hand, all nodes are looked at.
/// Readers: any number of threads.
VELMAR_2D_API Cell* locate(double x, double y, const Cell* start = nullptr);

/// One of the data values at a point; not-a-number where locate() finds no node. At a node it is
/// the node's own. Ends the process where `value` is not below n_cell_data. Readers: any number of
/// threads.
VELMAR_2D_API double value_at(double x, double y, std::int32_t value = 0,
                              Interpolation how = Interpolation::linear,
                              const Cell* start = nullptr);

/// The pieces into which the control cells cut the line from a to b, in its order: each ends where
/// the next one begins. What lies outside the rectangle is left out; none where all of it does, or
/// where a coordinate is not finite.
/// Readers: any number of threads.
VELMAR_2D_API void line_cut(Point a, Point b, std::vector<LinePiece>& pieces);

// ---------------------------------------------------------------------------------------------
// Checking the mesh
// ---------------------------------------------------------------------------------------------

/// Checks every rule of a whole mesh and reports the places where one does not hold.
///
///     arrays        the level arrays reach up to the limit, nothing lies above it
///     list          prev and next agree, the list runs through the stretches and comes to its end
///     stretch       every node lies in the stretch of its ipos
///     count         nb_nodes is the number of nodes
///     id            1 to next_id - 1
///     position      inside the domain, on the lattice, and ipos is that of the position
///     unique        no two nodes at one position
///     level         0 to level_max
///     reserve       1 to 4
///     link          links designate nodes of the mesh, or records in straight directions
///     mutual        the neighbour links back
///     direction     the neighbour lies where the link points
///     link_level    1 or 2; once the node has left level 0, the number of halves of the face
///     side          records are linked exactly on the sides; on_boundary is their number
///     signature     a signature that is set is that of the links
///     area          an area that is cached (not negative, not infinite) is that of the cell
///     domain_area   the control cells sum to the domain
///     closed_sides  the control cells along each side sum to its length
///
/// Can be called at any time, in the joined and in the split state, also where there is no mesh,
/// but not by a callback. Changes and prints nothing. Links are followed only where they lead to
/// nodes of the list, so that a mesh that was damaged through its public fields can be checked.
/// Cost: linear in the number of nodes, with a table of 48 to 96 bytes a node.
/// Readers: any number of threads.
///
/// @param findings  receives the findings, in list order
/// @return their number; 0 for a whole mesh
VELMAR_2D_API std::size_t check_mesh(std::vector<Finding>& findings);

// ---------------------------------------------------------------------------------------------
// Single steps of an adaptation, for callers with rules of their own
// ---------------------------------------------------------------------------------------------

/// Proposes the nodes that refine the mesh around `c`: centres of its squares and diamonds that
/// have none yet. Changes nothing. A copy of a node stands for the node.
/// Readers: any number of threads.
///
/// @param c            a node of the mesh
/// @param vertex_list  receives the proposals in its first n entries
/// @param n            0 to 4
VELMAR_2D_API void build_vertex(Cell* c, std::array<Vertex, 4>& vertex_list, std::int32_t& n);

/// Adds the centre of the square of v.p1 .. v.p4 to the mesh.
/// Ends the process if v.level is above the limit, a parent is missing, or the position has no
/// place in the level arrays.
VELMAR_2D_API void insert_node_odd_level(const Vertex& v);

/// Adds the midpoint of an edge to the mesh: four parents inside, three (v.p4 none) on a side.
/// Ends the process as insert_node_odd_level() does.
VELMAR_2D_API void insert_node_even_level(const Vertex& v);

/// Removes the centre of a square; `c` is cleared. Declines (and `c` stays) if the node lies on the
/// boundary or has a straight link.
VELMAR_2D_API void remove_node_odd_level(Cell*& c);

/// Removes the midpoint of an edge; `c` is cleared. Declines (and `c` stays) if the node has a
/// diagonal link. Takes nodes of the first grid too, which leaves a hole in it: adaptation never
/// does that, and only resolve_mesh_*() fills it.
VELMAR_2D_API void remove_node_even_level(Cell*& c);

/// Cuts the node list into one list per stretch. Ends the process if there is no mesh.
VELMAR_2D_API void split_sublists();

/// Joins the lists of the stretches again, in ascending order. Ends the process if there is no
/// mesh.
VELMAR_2D_API void join_sublists();

// ---------------------------------------------------------------------------------------------
// The library itself
// ---------------------------------------------------------------------------------------------

/// Version of the library in use, as "major.minor.patch".
VELMAR_2D_API const char* version();

}  // namespace velmar_2d
