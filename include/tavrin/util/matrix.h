// A small dense matrix of doubles with value semantics.
//
// Indices are 1-based throughout: element (1, 1) is the top-left one. Elements are stored row by
// row. A matrix always has at least one row and one column; every misuse (a zero dimension, an
// index out of range, operands whose shapes do not fit, a division by zero) throws
// CMatrixException naming the operation, and an operation that throws leaves its operands as
// they were.
//
//     tavrin::matrix a(2, 2, 0.0);
//     a(1, 1) = 2.0; a(1, 2) = 1.0; a(2, 1) = 1.0; a(2, 2) = 3.0;
//     tavrin::matrix b(2, 1, 1.0);
//     tavrin::matrix x = tavrin::gauss(a, b);   // a * x == b
#pragma once

#include <tavrin/core/config.h>
#include <tavrin/core/exception.h>

namespace tavrin {

class TAVRIN_API matrix
{
public:
    // A rows x cols matrix with every element set to `value`; a zero dimension throws
    // InvalidMatrixDimension.
    explicit matrix(unsigned int rows = 1, unsigned int cols = 1, double value = 0.0);
    matrix(const matrix& other);
    ~matrix();

    // Takes the other's shape and elements; self-assignment is harmless.
    matrix& operator=(const matrix& other);

    // Element (i, j), 1-based. The reference is writable although the member is const: a const
    // matrix guards its shape, not its elements. Out-of-range indices throw InvalidIndex.
    double& operator()(unsigned int i, unsigned int j) const;

    // Discards the contents and takes the new shape with every element set to `value`. A zero
    // dimension throws InvalidMatrixDimension before anything changes.
    void resize(unsigned int rows, unsigned int cols, double value = 0.0);
    // Sets every element to `value`; the shape stays.
    void clear(double value = 0.0);

    unsigned int rows() const { return m_nRows; }
    unsigned int cols() const { return m_nCols; }

    matrix operator-() const;
    matrix operator+() const;

private:
    double* m_pData;
    unsigned int m_nRows;
    unsigned int m_nCols;
};

// Equal shapes and every element equal with ==, so a NaN element makes matrices unequal.
TAVRIN_API bool operator==(const matrix& a, const matrix& b);
TAVRIN_API bool operator!=(const matrix& a, const matrix& b);

// Element-wise sum and difference; different shapes throw IncompatibleMatrixDimension.
TAVRIN_API matrix operator+(const matrix& a, const matrix& b);
TAVRIN_API matrix operator-(const matrix& a, const matrix& b);
// Matrix product; a.cols() != b.rows() throws IncompatibleMatrixDimension.
TAVRIN_API matrix operator*(const matrix& a, const matrix& b);
TAVRIN_API matrix operator*(const matrix& a, double factor);
TAVRIN_API matrix operator*(double factor, const matrix& a);
// Element-wise quotient (not a multiplication by an inverse). Zero elements of b divide in
// floating point without an exception; different shapes throw IncompatibleMatrixDimension.
TAVRIN_API matrix operator/(const matrix& a, const matrix& b);
// Every element divided by `divisor`; a divisor of exactly zero throws DivisionByZero (NaN is
// accepted).
TAVRIN_API matrix operator/(const matrix& a, double divisor);

// Same number of rows and same number of columns.
TAVRIN_API bool same_dim(const matrix& a, const matrix& b);
TAVRIN_API matrix transpose(const matrix& a);
// Row i as a 1 x cols matrix / column j as a rows x 1 matrix; out of range throws InvalidIndex.
TAVRIN_API matrix row(const matrix& a, unsigned int i);
TAVRIN_API matrix col(const matrix& a, unsigned int j);
// Determinant of a square matrix (InvalidMatrixDimension otherwise). Rows are scaled by their
// largest element and the elimination pivots by adding the best row instead of exchanging rows,
// so no sign bookkeeping is needed. A singular matrix gives 0 without an exception.
TAVRIN_API double determinant(const matrix& a);
// Determinant of a without row i and column j. a must be square with at least 2 rows
// (InvalidMatrixDimension); i and j must be in range (InvalidIndex).
TAVRIN_API double minor(const matrix& a, unsigned int i, unsigned int j);
// Inverse by cofactors. Not square: InvalidMatrixDimension; determinant exactly 0:
// DivisionByZero.
TAVRIN_API matrix invert(const matrix& a);
// The n x 1 solution x of a * x = b by Gaussian elimination. Checked in this order: a not square
// (InvalidMatrixDimension), b.rows() != a.rows() (IncompatibleMatrixDimension), b.cols() != 1
// (InvalidMatrixDimension), a zero row or a zero pivot (DivisionByZero).
TAVRIN_API matrix gauss(const matrix& a, const matrix& b);
// Frobenius norm: the square root of the sum of the squares of all elements.
TAVRIN_API double norm(const matrix& a);

} // namespace tavrin
