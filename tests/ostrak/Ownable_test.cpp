#include "ostrak/Ownable.hpp"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

using Ostrak::StrongPtr;
using Ostrak::WeakPtr;

namespace {

class Book : public Ostrak::Ownable<Book> {};

class Shelf : public Ostrak::Ownable<Book>::Container {
 public:
  explicit Shelf(std::string name) : name(std::move(name)) {}
  void extremeUnction() override {
    if (onUnction) onUnction(this);
  }
  std::string name;
  std::function<void(Shelf*)> onUnction;
};

std::vector<std::string> ownerNames(const Book& book) {
  std::vector<std::string> names;
  for (const auto* entry = book.owners(); entry; entry = entry->next.get()) {
    WeakPtr<Shelf> shelf = Ostrak::dynamic_pointer_cast<Shelf>(entry->owner);
    names.push_back(shelf ? shelf->name : "(gone)");
  }
  return names;
}

}  // namespace

TEST(Ownable, OwnersAreListedOnceInInsertionOrder) {
  StrongPtr<Shelf> a(new Shelf("a")), b(new Shelf("b")), c(new Shelf("c"));
  Book book;
  EXPECT_TRUE(book.addOwner(*a));
  EXPECT_TRUE(book.addOwner(*b));
  EXPECT_FALSE(book.addOwner(*a));
  EXPECT_TRUE(book.addOwner(*c));
  EXPECT_FALSE(book.addOwner(*b));
  EXPECT_EQ(ownerNames(book), (std::vector<std::string>{"a", "b", "c"}));

  EXPECT_TRUE(book.removeOwner(*b));
  EXPECT_FALSE(book.removeOwner(*b));
  EXPECT_FALSE(book.isOwnedBy(*b));
  EXPECT_TRUE(book.addOwner(*b));
  EXPECT_EQ(ownerNames(book), (std::vector<std::string>{"a", "c", "b"}));
  // The list holds its owners weakly.
  EXPECT_EQ(a.strongCount(), 1);
}

TEST(Ownable, FirstLiveOwnerSkipsDeadOwners) {
  StrongPtr<Shelf> a(new Shelf("a")), b(new Shelf("b")), c(new Shelf("c"));
  Book book;
  for (const StrongPtr<Shelf>& shelf : {a, b, c}) book.addOwner(*shelf);
  EXPECT_TRUE(book.firstLiveOwner() == a);

  a.reset();
  EXPECT_TRUE(book.firstLiveOwner() == b);
  EXPECT_EQ(ownerNames(book), (std::vector<std::string>{"(gone)", "b", "c"}));

  // An owner in its last rites is still alive for the objects it owns.
  bool sawItself = false;
  b->onUnction = [&](Shelf* self) { sawItself = book.firstLiveOwner().get() == self; };
  b.reset();
  EXPECT_TRUE(sawItself);
  EXPECT_TRUE(book.firstLiveOwner() == c);

  c.reset();
  EXPECT_FALSE(book.firstLiveOwner());
}

TEST(Ownable, CopiesStartWithoutOwners) {
  StrongPtr<Shelf> a(new Shelf("a")), b(new Shelf("b"));
  Book book;
  book.addOwner(*a);
  Book copy(book);
  EXPECT_EQ(copy.owners(), nullptr);

  Book other;
  other.addOwner(*b);
  other = book;
  EXPECT_EQ(ownerNames(other), (std::vector<std::string>{"b"}));
  EXPECT_EQ(ownerNames(book), (std::vector<std::string>{"a"}));
}
