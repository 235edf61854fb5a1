// GeoJSON (RFC 7946), read as a stream: points are kept as they come, nothing else is.
#include <algorithm>
#include <array>
#include <cctype>
#include <nlohmann/json.hpp>
#include <string_view>

#include "tools/lines.hpp"

namespace velmar_2d::tools {
namespace {

using Json = nlohmann::json;

/// Arrays and objects may lie in one another; no honest file goes deeper than this.
constexpr std::size_t deepest = 100;

/// Members of a GeoJSON object that say where something is; any others are skipped.
enum class Member { type, geometry, features, geometries, coordinates, other };
constexpr std::array<std::string_view, 5> member_names = {"type", "geometry", "features",
                                                          "geometries", "coordinates"};

struct Type {
  std::string_view name;
  Member content;
  int depth = 0;  ///< of positions: the number of arrays around each
};
constexpr std::array<Type, 9> types = {{{"Feature", Member::geometry},
                                        {"FeatureCollection", Member::features},
                                        {"GeometryCollection", Member::geometries},
                                        {"Point", Member::coordinates, 0},
                                        {"MultiPoint", Member::coordinates, 1},
                                        {"LineString", Member::coordinates, 1},
                                        {"MultiLineString", Member::coordinates, 2},
                                        {"Polygon", Member::coordinates, 2},
                                        {"MultiPolygon", Member::coordinates, 3}}};

/// A text of the file within a message: no longer than a word, and without control characters.
std::string quoted(const std::string& text) {
  constexpr std::size_t longest = 40;
  std::string word = text.substr(0, longest);
  for (char& letter : word) {
    if (std::iscntrl(static_cast<unsigned char>(letter)) != 0) letter = '?';
  }
  return '"' + word + (text.size() > longest ? "..." : "") + '"';
}

/// Is called by the parser for every value, in the order of the file. The type of an object may
/// come after its content, so that what was read is held against it where the object ends.
class Reader {
 public:
  explicit Reader(Lines& lines) : lines_(lines) {}

  bool null() { return take_scalar(true); }
  bool boolean(bool /*value*/) { return take_scalar(false); }
  bool number_integer(Json::number_integer_t value) {
    return take_number(static_cast<double>(value));
  }
  bool number_unsigned(Json::number_unsigned_t value) {
    return take_number(static_cast<double>(value));
  }
  bool number_float(double value, const std::string& /*text*/) { return take_number(value); }
  bool binary(Json::binary_t& /*value*/) { return take_scalar(false); }  // no JSON text holds any

  bool string(const std::string& text) {
    if (is_in(Place::object) && objects_.back().awaited == Member::type) {
      objects_.back().type = text;
      return true;
    }
    return take_scalar(false);
  }

  bool key(std::string& name) {
    if (!is_in(Place::object)) return true;
    Object& object = objects_.back();
    const auto* found = std::find(member_names.begin(), member_names.end(), name);
    object.awaited = static_cast<Member>(found - member_names.begin());
    if (object.awaited == Member::other) return true;
    bool& has = object.has[index(object.awaited)];
    if (has) throw Fault{"an object has \"" + name + "\" twice"};
    has = true;
    if (object.awaited == Member::coordinates) object.first_point = lines_.size();
    return true;
  }

  bool start_object(std::size_t /*size*/) {
    const bool is_expected = open_.empty() || is_in(Place::members) ||
                             (is_in(Place::object) && objects_.back().awaited == Member::geometry);
    if (is_expected)
      objects_.emplace_back();
    else if (!is_skipped())
      refuse();
    return open(is_expected ? Place::object : Place::other);
  }

  bool start_array(std::size_t /*size*/) {
    if (is_skipped()) return open(Place::other);
    if (is_in(Place::object)) {
      const Member member = objects_.back().awaited;
      if (member == Member::features || member == Member::geometries) return open(Place::members);
      if (member == Member::coordinates) return open(Place::empty_array);
    } else if (is_in(Place::empty_array) || is_in(Place::array)) {
      if (is_in(Place::empty_array)) ++nb_arrays_;
      open_.back() = Place::array;
      return open(Place::empty_array);
    }
    refuse();
  }

  bool end_array() {
    const Place ended = open_.back();
    open_.pop_back();
    if (ended == Place::half_position) refuse_position();
    if (ended == Place::empty_array) {
      int& depth = objects_.back().deepest_empty;
      depth = std::max(depth, nb_arrays_);
    }
    if (ended == Place::array) --nb_arrays_;
    if (ended == Place::empty_array || ended == Place::array) lines_.end_line();
    return true;
  }

  bool end_object() {
    const bool is_other = is_in(Place::other);
    open_.pop_back();
    if (is_other) return true;
    check(objects_.back());
    objects_.pop_back();
    return true;
  }

  static bool parse_error(std::size_t byte, const std::string& /*token*/,
                          const Json::exception& /*error*/) {
    throw Fault{"no JSON from byte " + std::to_string(byte) + " on"};
  }

 private:
  /// Where a value stands: in what it is enclosed by.
  enum class Place {
    object,         ///< a GeoJSON object
    members,        ///< its features or geometries
    empty_array,    ///< an array of coordinates of which nothing is known yet
    array,          ///< one of arrays
    half_position,  ///< one that began with one number
    position,       ///< one that began with two numbers
    other,          ///< what is skipped
  };
  struct Object {
    std::string type;
    Member awaited = Member::other;  ///< which member the next value is
    std::array<bool, member_names.size()> has{};
    std::size_t first_point = 0;
    int depth = none, deepest_empty = none;  ///< of positions and of empty arrays
    static constexpr int none = -1;
  };

  static std::size_t index(Member member) { return static_cast<std::size_t>(member); }
  bool is_in(Place place) const { return !open_.empty() && open_.back() == place; }
  bool is_skipped() const {
    return is_in(Place::other) || is_in(Place::position) ||
           (is_in(Place::object) && objects_.back().awaited == Member::other);
  }

  bool open(Place place) {
    if (open_.size() == deepest) {
      throw Fault{"more than " + std::to_string(deepest) + " arrays and objects in one another"};
    }
    open_.push_back(place);
    return true;
  }

  bool take_number(double value) {
    if (is_in(Place::empty_array)) {
      int& depth = objects_.back().depth;
      if (depth != Object::none && depth != nb_arrays_) refuse_position();
      depth = nb_arrays_;
      x_ = value;
      open_.back() = Place::half_position;
      return true;
    }
    if (!is_in(Place::half_position)) return take_scalar(false);
    lines_.add({x_, value});
    open_.back() = Place::position;
    return true;
  }

  bool take_scalar(bool is_null) {
    const bool may_be_null = open_.empty() || is_in(Place::members) ||
                             (is_in(Place::object) && objects_.back().awaited == Member::geometry);
    if (!is_skipped() && !(is_null && may_be_null)) refuse();
    return true;
  }

  [[noreturn]] static void refuse_position() { throw Fault{"a position is no pair of numbers"}; }
  /// What is wrong with a value at this place.
  [[noreturn]] void refuse() const {
    if (!is_in(Place::object)) {
      if (!open_.empty() && !is_in(Place::members)) refuse_position();
      throw Fault{"no GeoJSON object"};
    }
    const Member member = objects_.back().awaited;
    if (member == Member::coordinates) throw Fault{"coordinates are missing"};
    throw Fault{"\"" + std::string(member_names[index(member)]) + "\" is not what it should be"};
  }

  void check(const Object& object) {
    const auto* type = std::find_if(types.begin(), types.end(),
                                    [&](const Type& t) { return t.name == object.type; });
    if (!object.has[index(Member::type)]) throw Fault{"an object has no \"type\""};
    if (type == types.end()) throw Fault{"unknown GeoJSON type " + quoted(object.type)};
    for (std::size_t i = index(Member::geometry); i < member_names.size(); ++i) {
      const bool is_content = i == index(type->content);
      if (object.has[i] == is_content || (is_content && type->content == Member::geometry))
        continue;
      throw Fault{"a " + object.type + (is_content ? " without \"" : " with \"") +
                  std::string(member_names[i]) + "\""};
    }
    if (type->content != Member::coordinates) return;
    if (object.deepest_empty >= type->depth ||
        (object.depth != Object::none && object.depth != type->depth)) {
      refuse_position();
    }
    if (object.type == "MultiPoint") lines_.scatter(object.first_point);
    lines_.end_line();
  }

  Lines& lines_;
  std::vector<Place> open_;      ///< all that is open, outermost first
  std::vector<Object> objects_;  ///< the GeoJSON objects among it
  int nb_arrays_ = 0;            ///< arrays of arrays of coordinates among it
  double x_ = 0.0;               ///< of the position that is being read
};

}  // namespace

void read_geojson(std::istream& text, Lines& lines) {
  Reader reader(lines);
  Json::sax_parse(text, &reader);
}

}  // namespace velmar_2d::tools
