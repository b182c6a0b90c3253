// Random operations of generic access: random types, attributes, kinds, keys and arguments, by the
// front and raw. Each one ends in a result or in one of the framework's exceptions, and a refused
// one has changed nothing. SEED and OPERATIONS repeat a run or make it longer.
#include "GenericFixture.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstdlib>
#include <iostream>
#include <iterator>
#include <map>
#include <poll.h>
#include <random>

namespace {

// Offers read ends of pipes, and takes back whatever became of them: the write end shows whether
// an owner has closed the read end, and else the owner is told to forget it.
class Pipes {
 public:
   Pipes() { pipes_.fill({-1, -1}); }
   void takeAllBack() {
      for (Pipe& pipe : pipes_) {
         takeBack(pipe);
      }
   }
   int offer() {
      Pipe& pipe = pipes_[next_++ % pipes_.size()];
      takeBack(pipe);
      EXPECT_EQ(::pipe(pipe.data()), 0);
      return pipe[0];
   }

 private:
   using Pipe = std::array<int, 2>;
   static void takeBack(Pipe& pipe) {
      pollfd writeEnd{pipe[1], POLLOUT, 0};
      if (::poll(&writeEnd, 1, 0) == 1 && (writeEnd.revents & POLLERR) == 0) {
         manager()->fdDel(pipe[0]);
         ::close(pipe[0]);
      }
      ::close(pipe[1]);
      pipe = {-1, -1};
   }

   std::array<Pipe, 16> pipes_;
   std::size_t next_ = 0;
};

std::uint64_t setting(const char* name, std::uint64_t otherwise) {
   const char* const given = std::getenv(name);
   return given != nullptr ? std::strtoull(given, nullptr, 10) : otherwise;
}

constexpr const VelType* siginfoType = &Siginfo::_velType;
constexpr const VelType* errorType = &Sm::_velType_terminationError;

class GenericRandom : public GenericAccess {
 protected:
   std::size_t below(std::size_t n) { return generator() % n; }
   template <class List> auto anyOf(const List& list) { return list[below(std::size(list))]; }
   int anyPid() { return 5000001 + static_cast<int>(below(7)); } // of no process

   GenericValue anyValue() {
      static constexpr std::int64_t numbers[] = {-1,      5000001,   5000002, INT_MAX,
                                                 INT_MIN, 1LL << 40, 0};
      static constexpr const char* texts[] = {"worker", "", "5000001", "true", "signaled", "\"x"};
      switch (below(7)) {
      case 0:
         return anyOf(texts);
      case 1:
         return Vel::Text{anyOf(texts)};
      case 2:
         return below(2) == 0;
      case 3:
         return nullptr;
      case 4:
         return anyOf(handles);
      case 5:
         return pipes.offer();
      default:
         return anyOf(numbers);
      }
   }
   // What the type takes, more often than not.
   static constexpr const char* descriptions[] = {"worker", "worker", "worker", "clerk"};
   GenericValue fitting(const VelType& type) {
      return below(12) == 0       ? anyValue()
             : &type == childType ? GenericValue(below(2) == 0 ? anyOf(handles) : childIf)
             : &type == &Vel::Builtin<bool>::_velType         ? GenericValue(below(2) == 0)
             : &type == &Vel::Builtin<Vel::String8>::_velType ? GenericValue(anyOf(descriptions))
             : &type == &Vel::Builtin<Vel::Name>::_velType    ? GenericValue("name")
                                                              : GenericValue(anyPid());
   }
   Values fitting(const VelAttr& attr, char op) {
      Values values;
      const bool changes = op == 'w' || op == 'c';
      const bool asksNoKey = op == 'n' || (op == 'i' && below(2) == 0);
      if (attr.keyType != nullptr && !asksNoKey && !(changes && attr.is(VelAttr::entityFlag))) {
         values.push_back(fitting(*attr.keyType));
      }
      const Vel::VelArg* arg = changes ? attr.args : nullptr;
      for (; arg != nullptr && arg->name != nullptr; ++arg) {
         const bool takesPipe = std::string_view(arg->name) == "readFromChildFd";
         values.push_back(!takesPipe      ? fitting(*Vel::typeNode(arg->typeName))
                          : below(8) == 0 ? GenericValue(-1)
                                          : GenericValue(pipes.offer()));
      }
      if (op == 'w' && attr.args == nullptr) {
         values.push_back(fitting(*attr.valueType));
      }
      if (below(20) == 0 && values.size() < 3) {
         values.push_back(anyValue());
      }
      return values;
   }

   // As a type carries it out: pointers to what it must be, but to any arguments.
   Handle raw(const Handle& on, const VelAttr& attr, unsigned kind) {
      GenericArgs args;
      for (std::size_t left = below(4); left != 0; --left) {
         args.push_back(anyOf(handles));
      }
      int key = anyPid();
      auto number = static_cast<unsigned>(below(2));
      Vel::PtrInterface* const entities[] = {child.get(), other.get(), nullptr};
      void* const value = attr.args != nullptr           ? static_cast<void*>(&args)
                          : attr.is(VelAttr::entityFlag) ? static_cast<void*>(anyOf(entities))
                                                         : static_cast<void*>(&number);
      return on->attributeOp({&attr, kind}, &key, value);
   }

   Handle anyEntity(const VelType* type) {
      const Handle tracked = type == childType ? sm->read("process", anyPid()) : nullptr;
      const Handle fixed = type == smType ? GenericIf::of(Vel::Ptr<Sm const>(tracker)) : nullptr;
      const Handle usual = type == smType ? sm : type == childType ? childIf : contextIf;
      const Handle rarer = tracked ? tracked : fixed;
      return below(16) == 0 ? anyOf(handles) : rarer && below(2) == 0 ? rarer : usual;
   }

   char anyOperationOn(const VelAttr& attr) {
      const std::string_view usual = attr.is(VelAttr::functionFlag)     ? "c"
                                     : attr.is(VelAttr::collectionFlag) ? "rwwwwdhin"
                                     : attr.is(VelAttr::notifyingFlag)  ? "rwwdo"
                                     : attr.is(VelAttr::readOnlyFlag)   ? "r"
                                                                        : "rw";
      return anyOf(below(4) == 0 ? std::string_view("rwdchino") : usual);
   }

   void anyOperation() {
      static constexpr const VelType* types[] = {smType,      smType,      childType,
                                                 contextType, siginfoType, errorType};
      const VelType* const type = anyOf(types);
      // The first ones, which make and end entities, more often.
      const VelAttr& attr = type->attrs[std::min(below(type->attrCount), below(type->attrCount))];
      const Handle on = type == siginfoType ? childIf->read("siginfo") : anyEntity(type);
      const char op = anyOperationOn(attr);
      const auto kind = static_cast<unsigned>(below(10));
      const Handle result = !on             ? nullptr
                            : below(4) == 0 ? raw(on, attr, kind)
                                            : operate(on, op, &attr, fitting(attr, op));
      if (result) {
         handles[below(handles.size())] = result;
      }
   }

   // What it came to, by the name of the exception.
   template <class Act> std::string outcome(const Act& act) {
      const auto before = state();
      try {
         act();
         return "done";
      } catch (const Vel::NameInUseException&) {
         return "name in use";
      } catch (const Vel::SystemException&) {
         return "system";
      } catch (const Vel::OpNotSupportedException&) {
         EXPECT_EQ(state(), before);
         return "not supported";
      } catch (const Vel::RangeException& refused) {
         EXPECT_EQ(state(), before) << refused.what();
         return "range";
      } catch (int) {
         return "hook's own";
      }
   }

   std::mt19937_64 generator;
   Pipes pipes;
   std::vector<Handle> handles;
};

TEST_F(GenericRandom, EveryOperationEndsInADefinedResult) {
   const std::uint64_t seed = setting("SEED", std::random_device()());
   const std::uint64_t operations = setting("OPERATIONS", 200000);
   std::cout << "SEED=" << seed << " OPERATIONS=" << operations << '\n';
   generator.seed(seed);
   tracker->calls = nullptr; // a million notes are of no use
   tracker->hook = [this](const Child&) { below(8) == 0 ? throw 7 : void(); };
   const Handle plainOnes[] = {
      plain(5000001),           plain(7U), plain(true),         plain(Vel::String8("worker")),
      plain(Vel::Name("name")), childIf,   GenericIf::of(other)};
   for (int n = 0; n < 16; ++n) {
      handles.push_back(anyOf(plainOnes));
   }
   std::map<std::string, int> outcomes;
   for (std::uint64_t n = 0; n < operations && !HasFailure(); ++n) {
      ++outcomes[outcome([this] { anyOperation(); })];
      if (below(64) == 0) {
         handles[below(handles.size())] = anyOf(plainOnes);
      }
      if (below(64) == 0) {
         ++outcomes[outcome([] { manager()->runOnce(0); })];
      }
   }
   EXPECT_GE(outcomes.size(), 6U);
   handles.clear();
   pipes.takeAllBack();
}

} // namespace
